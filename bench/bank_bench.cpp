// The voice-bank entry editor at the size of a large bank: 2,000 entries
// over 20 samples of 3 s. Opening it to its first painted frame, the first
// load of a sample (waveform, spectrogram, frequency curve), and the redraw
// of a 3 s sample's view from what is kept.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QImage>
#include <QPainter>
#include <cstdlib>
#include <string>

#include "bench/qt_bench_main.h"
#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"
#include "ui/shell/bankeditor.h"
#include "ui/views/waveview.h"

namespace {

struct BigBank {
  BigBank() {
    VoiceSignal voice;
    voice.seconds = 3.0;
    for (int s = 0; s < 20; ++s) {
      voice.f0 = 180.0 + 5 * s;
      voice.writeWave(dir.file("s" + std::to_string(s) + ".wav"));
    }
    // Spare copies, each loaded once by the first-load benchmark.
    for (int c = 0; c < 40; ++c) voice.writeWave(dir.file("copy" + std::to_string(c) + ".wav"));
    std::string oto;
    for (int e = 0; e < 2000; ++e) {
      oto += "s" + std::to_string(e % 20) + ".wav=alias" + std::to_string(e) + "," + std::to_string(10 + e % 50) +
             ",60,-2000,40,10\n";
    }
    writeFile(dir.file("oto.ini"), oto);
  }
  TempDir dir;
};

BigBank& bank() {
  static BigBank b;
  return b;
}

void BM_OpenEntryEditor(benchmark::State& state) {
  const QString folder = QString::fromStdString(bank().dir.path());
  QImage frame(1100, 700, QImage::Format_ARGB32_Premultiplied);
  for (auto _ : state) {
    BankEditor editor;
    QString error;
    if (!editor.open(folder, &error)) state.SkipWithError(error.toStdString().c_str());
    editor.resize(1100, 700);
    QPainter painter(&frame);
    editor.render(&painter);
  }
  state.counters["entries"] = 2000;
}
BENCHMARK(BM_OpenEntryEditor)->Unit(benchmark::kMillisecond);

void BM_FirstLoadOfA3sSample(benchmark::State& state) {
  int copy = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        loadSamplePicture(QString::fromStdString(bank().dir.file("copy" + std::to_string(copy++ % 40) + ".wav"))));
  }
}
BENCHMARK(BM_FirstLoadOfA3sSample)->Iterations(40)->Unit(benchmark::kMillisecond);

void BM_RedrawSpectrogramOf3s(benchmark::State& state) {
  WaveView view;
  view.resize(1100, 420);
  view.setSample(QString::fromStdString(bank().dir.file("s0.wav")));
  QImage frame(view.size(), QImage::Format_ARGB32_Premultiplied);
  for (auto _ : state) {
    QPainter painter(&frame);
    view.render(&painter);
  }
}
BENCHMARK(BM_RedrawSpectrogramOf3s)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return runQtBenchmarks(argc, argv); }
