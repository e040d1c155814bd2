// The editor at the size of a long song: 10,000 notes with pitch lines
// and vibratos. One frame of the visible roll, opening the project up to
// its first painted frame, and one mouse-move step of a drag of 500
// selected notes with its repaint. Off screen, as the tests run.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QImage>
#include <QMouseEvent>
#include <QPainter>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/qt_bench_main.h"
#include "tests/testutil.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "render/wavefile.h"
#include "ui/views/backinglane.h"
#include "ui/views/pianoroll.h"
#include "ui/views/rolleditor.h"
#include "ui/views/timescale.h"

namespace {

// 10,000 notes of an eighth each, a melody over an octave, every fourth
// note with a vibrato, every note with a pitch line.
std::string bigProject(const TempDir& dir) {
  std::string text =
      "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120.00\nProjectName=big\nMode2=True\n";
  static const char* const kLyrics[] = {"さ", "く", "ら", "あ", "い", "う"};
  char section[256];
  for (int i = 0; i < 10000; ++i) {
    snprintf(section, sizeof section,
             "[#%04d]\nDelta=240\nDuration=240\nLyric=%s\nNoteNum=%d\nIntensity=100\nPBS=-40;-20\nPBW=40,60\n"
             "PBY=0,\n%s",
             i, kLyrics[i % 6], 60 + (i * 7) % 12, i % 4 == 0 ? "VBR=65,180,35,20,20,0,0\n" : "");
    text += section;
  }
  text += "[#TRACKEND]\n";
  const std::string path = dir.file("big.snt");
  writeFile(path, text);
  return path;
}

struct Fixture {
  Fixture() : path(bigProject(dir)) {
    window = new MainWindow;
    window->resize(1280, 800);
    window->show();
    QApplication::processEvents();
    window->openProject(QString::fromStdString(path), true);
    roll = window->editor()->roll();
    frame = QImage(roll->size(), QImage::Format_ARGB32_Premultiplied);
    // A bar or so past the start, at the default zoom.
    window->editor()->timeScale()->setScrollX(
        static_cast<int>(200000 * window->editor()->timeScale()->pixelsPerTick()));
  }
  ~Fixture() { delete window; }
  void paint() {
    QPainter painter(&frame);
    roll->render(&painter);
  }

  TempDir dir;
  std::string path;
  MainWindow* window = nullptr;
  PianoRoll* roll = nullptr;
  QImage frame;
};

void BM_PaintVisibleRoll(benchmark::State& state) {
  Fixture f;
  f.paint();  // the curves, made once per change
  for (auto _ : state) f.paint();
}
BENCHMARK(BM_PaintVisibleRoll)->Unit(benchmark::kMillisecond);

void BM_OpenToFirstFrame(benchmark::State& state) {
  Fixture f;
  for (auto _ : state) {
    f.window->openProject(QString::fromStdString(f.path), true);
    f.paint();
  }
}
BENCHMARK(BM_OpenToFirstFrame)->Unit(benchmark::kMillisecond);

// Every 20th note selected; the mouse moves the drag a step right and back.
void BM_DragStepOf500Notes(benchmark::State& state) {
  Fixture f;
  EditorDocument& document = *f.window->document();
  for (int i = 0; i < document.engine().noteCount; i += 20) document.notes().addSelect(i, 2);
  const QPointF start = f.roll->noteRect(document.notes().topOfSelection() + 20 * 8).center();
  QMouseEvent press(QEvent::MouseButtonPress, start, f.roll->mapToGlobal(start), Qt::LeftButton, Qt::LeftButton,
                    Qt::NoModifier);
  QApplication::sendEvent(f.roll, &press);
  double dx = 30;
  for (auto _ : state) {
    const QPointF at = start + QPointF(dx, 0);
    QMouseEvent move(QEvent::MouseMove, at, f.roll->mapToGlobal(at), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(f.roll, &move);
    f.paint();
    dx = dx > 30 ? 30 : 60;
  }
  QMouseEvent release(QEvent::MouseButtonRelease, start, f.roll->mapToGlobal(start), Qt::LeftButton, Qt::NoButton,
                      Qt::NoModifier);
  QApplication::sendEvent(f.roll, &release);
  state.counters["notes"] = document.notes().getSelectCount();
}
BENCHMARK(BM_DragStepOf500Notes)->Unit(benchmark::kMillisecond);

// One note of the 10,000 selected; its second pitch point dragged a few
// pixels back and forth: the line changed, its curve and its neighbours'
// rebuilt, the roll repainted.
void BM_PitchHandleStep(benchmark::State& state) {
  Fixture f;
  EditorDocument& document = *f.window->document();
  f.paint();
  // A note in view.
  int index = -1;
  for (int32_t i = 0; i < document.engine().noteCount && index < 0; ++i) {
    if (f.roll->noteRect(i).left() > 200) index = i;
  }
  document.notes().addSelect(index, 0);
  f.paint();
  const QPointF start = f.roll->pitchPointPosition(index, 1);
  QMouseEvent press(QEvent::MouseButtonPress, start, f.roll->mapToGlobal(start), Qt::LeftButton, Qt::LeftButton,
                    Qt::NoModifier);
  QApplication::sendEvent(f.roll, &press);
  double dy = -6;
  for (auto _ : state) {
    const QPointF at = start + QPointF(2, dy);
    QMouseEvent move(QEvent::MouseMove, at, f.roll->mapToGlobal(at), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(f.roll, &move);
    f.paint();
    dy = -dy;
  }
  // Released away from where it was taken: one step in the history, which
  // shows that the handle was held.
  const QPointF end = start + QPointF(2, -6);
  QMouseEvent release(QEvent::MouseButtonRelease, end, f.roll->mapToGlobal(end), Qt::LeftButton, Qt::NoButton,
                      Qt::NoModifier);
  QApplication::sendEvent(f.roll, &release);
  state.counters["steps"] = document.history().steps();
}
BENCHMARK(BM_PitchHandleStep)->Unit(benchmark::kMillisecond);

// Opening 100,000 notes of no length stacked on one tick (and one note
// that sounds) up to the first painted frame: linear, not quadratic.
void BM_OpenStackedNotes(benchmark::State& state) {
  TempDir dir;
  std::string text = "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120.00\nMode2=True\n";
  char section[160];
  const int count = static_cast<int>(state.range(0));
  for (int i = 0; i <= count; ++i) {
    snprintf(section, sizeof section, "[#%04d]\nDelta=0\nDuration=%d\nLyric=a\nNoteNum=60\n", i, i == count ? 480 : 0);
    text += section;
  }
  const std::string path = dir.file("stacked.snt");
  writeFile(path, text + "[#TRACKEND]\n");
  MainWindow window;
  window.resize(1280, 800);
  window.show();
  QApplication::processEvents();
  PianoRoll* roll = window.editor()->roll();
  QImage frame(roll->size(), QImage::Format_ARGB32_Premultiplied);
  for (auto _ : state) {
    window.openProject(QString::fromStdString(path), true);
    QPainter painter(&frame);
    window.render(&painter);
  }
}
BENCHMARK(BM_OpenStackedNotes)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(3);

// A 5-minute backing track (48 kHz stereo, resampled on load): loading it
// into the document, and one frame of its lane, with the whole song (the
// track under 10,000 notes, 20 minutes) in view (arg 0) or at the default
// zoom (1).
std::string fiveMinuteTrack(const TempDir& dir) {
  const int32_t frames = 5 * 60 * 48000;
  std::vector<int16_t> words(static_cast<size_t>(frames) * 2);
  uint32_t noise = 1;
  for (int32_t f = 0; f < frames; ++f) {
    noise = noise * 1664525u + 1013904223u;
    const double beat = (f % 24000) < 2000 ? 1.0 : 0.3;
    const auto value = static_cast<int16_t>(beat * (std::sin(f * 0.05) * 8000.0 + static_cast<int32_t>(noise >> 20) - 2048));
    words[static_cast<size_t>(f) * 2] = words[static_cast<size_t>(f) * 2 + 1] = value;
  }
  const std::string path = dir.file("track.wav");
  saveWaveFile(path.c_str(), words.data(), static_cast<int32_t>(words.size() * 2), 16, 2, 48000);
  return path;
}

void BM_LoadBackingTrack5Min(benchmark::State& state) {
  Fixture f;
  const QString track = QString::fromStdString(fiveMinuteTrack(f.dir));
  QString error;
  for (auto _ : state) {
    if (!f.window->document()->setBackingTrack(track, &error)) state.SkipWithError("cannot load");
  }
}
BENCHMARK(BM_LoadBackingTrack5Min)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_BackingLaneFrame(benchmark::State& state) {
  Fixture f;
  QString error;
  if (!f.window->document()->setBackingTrack(QString::fromStdString(fiveMinuteTrack(f.dir)), &error)) {
    state.SkipWithError("cannot load");
    return;
  }
  QApplication::processEvents();
  if (state.range(0) == 0) f.window->editor()->fitSong();
  BackingLane* lane = f.window->editor()->backingLane();
  QImage frame(lane->size(), QImage::Format_ARGB32_Premultiplied);
  for (auto _ : state) {
    QPainter painter(&frame);
    lane->render(&painter);
  }
  state.counters["width"] = lane->width();
}
BENCHMARK(BM_BackingLaneFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return runQtBenchmarks(argc, argv); }
