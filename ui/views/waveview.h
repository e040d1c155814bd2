// WaveView: one voice sample as its waveform over its spectrogram, with
// the frequency curve of its table and the markers of a voice-bank entry
// (offset, fixed consonant end, cut-off, pre-utterance, overlap), each
// marker dragged with the mouse.
//
// Times are msec from the file's start; the view always shows the whole
// sample. The spectrogram (1024-point transforms every 256 samples, up to
// 8 kHz) is computed once per sample file and kept.
#pragma once

#include <QImage>
#include <QWidget>
#include <memory>
#include <vector>

#include "voicebank/voiceset.h"

// A loaded sample: its first channel, rate and length, its spectrogram and
// its frequency curve (Hz per 256-sample frame, 0 where unvoiced).
struct SamplePicture {
  std::vector<float> samples;
  int rate = 44100;
  double lengthMs = 0.0;
  QImage spectrogram;
  std::vector<double> frequencies;
};
// Loads and analyses a sample (".wav" or ".aif(f)"); null when it cannot be
// read. Pictures are kept by path and file time: a second call costs nothing.
std::shared_ptr<const SamplePicture> loadSamplePicture(const QString& path);

class WaveView : public QWidget {
  Q_OBJECT

 public:
  enum Marker { kNone = -1, kOffset, kFixed, kCutoff, kPreutterance, kOverlap };
  static constexpr double kMaxHz = 8000.0;

  explicit WaveView(QWidget* parent = nullptr);
  QSize sizeHint() const override { return QSize(640, 300); }

  // The sample shown (empty: none) and the entry whose markers are drawn.
  bool setSample(const QString& path);
  void setEntry(const VoiceData& entry);
  const VoiceData& entry() const { return entry_; }
  const SamplePicture* picture() const { return picture_.get(); }

  // Where a marker stands (msec from the file's start) and its x on screen.
  double markerMs(Marker marker) const;
  double msToX(double ms) const;
  double xToMs(double x) const;
  // The entry with `marker` moved to `ms`: the offset moves alone (the
  // other markers keep their places in the file); a cut-off counted from
  // the end stays so, one counted from the offset (negative) stays so.
  VoiceData moved(const VoiceData& entry, Marker marker, double ms) const;

 signals:
  // While a marker is dragged, and once when it is let go (with the entry
  // as it was when the drag began).
  void entryDragged(const VoiceData& entry);
  void entryDropped(const VoiceData& before, const VoiceData& after);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  Marker markerAt(double x) const;

  std::shared_ptr<const SamplePicture> picture_;
  VoiceData entry_{};
  VoiceData dragStart_{};
  Marker dragging_ = kNone;
};
