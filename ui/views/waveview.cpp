#include "ui/views/waveview.h"

#include <QFileInfo>
#include <QHash>
#include <QMouseEvent>
#include <QMutex>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "render/wavefile.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"

namespace {

constexpr int kFftSize = 1024;
constexpr int kHop = 256;

struct FreeBlock {
  void operator()(void* p) const { free(p); }
};

// A dark-to-bright colour ramp for levels 0..1.
QRgb rampColour(double level) {
  level = std::clamp(level, 0.0, 1.0);
  const int r = static_cast<int>(255 * std::clamp(1.6 * level - 0.3, 0.0, 1.0));
  const int g = static_cast<int>(255 * std::clamp(1.4 * level - 0.45, 0.0, 1.0) * 0.9 + 20 * level);
  const int b = static_cast<int>(255 * std::clamp(0.35 + 0.9 * level - 1.2 * std::max(0.0, level - 0.6), 0.0, 1.0));
  return qRgb(std::min(r, 255), std::min(g, 255), std::min(b, 255));
}

QImage computeSpectrogram(const std::vector<float>& samples, int rate) {
  const int frames = std::max(1, static_cast<int>((samples.size() + kHop - 1) / kHop));
  const int bins = std::max(2, std::min(kFftSize / 2, static_cast<int>(WaveView::kMaxHz * kFftSize / rate)));
  QImage image(frames, bins, QImage::Format_RGB32);
  std::vector<double> cosTable(kFftSize), sinTable(kFftSize), window(kFftSize), x(kFftSize), re(kFftSize), im(kFftSize);
  calc_cossin(kFftSize, cosTable.data(), sinTable.data());
  for (int k = 0; k < kFftSize; ++k) window[static_cast<size_t>(k)] = 0.5 - 0.5 * std::cos(2 * M_PI * k / kFftSize);
  for (int f = 0; f < frames; ++f) {
    const long centre = static_cast<long>(f) * kHop;
    for (int k = 0; k < kFftSize; ++k) {
      const long at = centre + k - kFftSize / 2;
      const double v = at >= 0 && at < static_cast<long>(samples.size()) ? samples[static_cast<size_t>(at)] : 0.0;
      x[static_cast<size_t>(k)] = v * window[static_cast<size_t>(k)];
    }
    fftRealForward(x.data(), kFftSize, re.data(), im.data(), cosTable.data(), sinTable.data());
    for (int b = 0; b < bins; ++b) {
      const double power = re[static_cast<size_t>(b)] * re[static_cast<size_t>(b)] +
                           im[static_cast<size_t>(b)] * im[static_cast<size_t>(b)];
      // -80 dB to -10 dB of a full-scale sine: the range where voices lie.
      const double db = 10.0 * std::log10(power / (kFftSize * kFftSize / 16.0) + 1e-12);
      image.setPixel(f, bins - 1 - b, rampColour((db + 80.0) / 70.0));
    }
  }
  return image;
}

}  // namespace

std::shared_ptr<const SamplePicture> loadSamplePicture(const QString& path) {
  static QMutex mutex;
  static QHash<QString, std::pair<qint64, std::shared_ptr<const SamplePicture>>> kept;
  const QFileInfo info(path);
  const qint64 stamp = info.lastModified().toMSecsSinceEpoch() ^ info.size();
  {
    QMutexLocker lock(&mutex);
    auto found = kept.find(path);
    if (found != kept.end() && found->first == stamp) return found->second;
  }
  const QByteArray file = path.toLocal8Bit();
  const bool aiff = path.endsWith(".aif", Qt::CaseInsensitive) || path.endsWith(".aiff", Qt::CaseInsensitive);
  WaveFormat format{};
  int32_t bytes = 0;
  std::unique_ptr<int16_t, FreeBlock> words(aiff ? loadAiffFile(file.constData(), &format, 0, &bytes)
                                                 : loadWaveFile(file.constData(), &format, 0, &bytes));
  if (words == nullptr || format.channels < 1 || format.sampleRate == 0) return nullptr;
  auto picture = std::make_shared<SamplePicture>();
  const int channels = format.channels;
  const size_t frames = static_cast<size_t>(bytes) / 2 / static_cast<size_t>(channels);
  picture->samples.resize(frames);
  for (size_t i = 0; i < frames; ++i) picture->samples[i] = words.get()[i * static_cast<size_t>(channels)] / 32768.0f;
  picture->rate = static_cast<int>(format.sampleRate);
  picture->lengthMs = frames * 1000.0 / picture->rate;
  picture->spectrogram = computeSpectrogram(picture->samples, picture->rate);
  double* frequencies = nullptr;
  double* amplitudes = nullptr;
  double average = 0.0;
  const int32_t count = readFrequenciesList(file.constData(), &frequencies, &amplitudes, &average, 256);
  if (count > 0 && frequencies != nullptr) picture->frequencies.assign(frequencies, frequencies + count);
  free(frequencies);
  free(amplitudes);
  QMutexLocker lock(&mutex);
  kept.insert(path, {stamp, picture});
  return picture;
}

WaveView::WaveView(QWidget* parent) : QWidget(parent) {
  setMinimumSize(300, 160);
  setMouseTracking(true);
  setAttribute(Qt::WA_OpaquePaintEvent);
}

bool WaveView::setSample(const QString& path) {
  picture_ = path.isEmpty() ? nullptr : loadSamplePicture(path);
  update();
  return picture_ != nullptr;
}

void WaveView::setEntry(const VoiceData& entry) {
  entry_ = entry;
  update();
}

double WaveView::msToX(double ms) const {
  const double length = picture_ != nullptr ? std::max(picture_->lengthMs, 1.0) : 1000.0;
  return ms / length * width();
}

double WaveView::xToMs(double x) const {
  const double length = picture_ != nullptr ? std::max(picture_->lengthMs, 1.0) : 1000.0;
  return x / std::max(width(), 1) * length;
}

double WaveView::markerMs(Marker marker) const {
  const double length = picture_ != nullptr ? picture_->lengthMs : 0.0;
  switch (marker) {
    case kOffset:
      return entry_.offset;
    case kFixed:
      return entry_.offset + entry_.fixed;
    case kCutoff:
      return entry_.blank >= 0 ? length - entry_.blank : entry_.offset - entry_.blank;
    case kPreutterance:
      return entry_.offset + entry_.preuttr;
    case kOverlap:
      return entry_.offset + entry_.overlap;
    default:
      return 0.0;
  }
}

VoiceData WaveView::moved(const VoiceData& entry, Marker marker, double ms) const {
  VoiceData e = entry;
  const double length = picture_ != nullptr ? picture_->lengthMs : 0.0;
  ms = std::clamp(ms, 0.0, std::max(length, 0.0));
  auto tenth = [](double v) { return static_cast<float>(std::round(v * 10.0) / 10.0); };
  switch (marker) {
    case kOffset: {
      const double shift = ms - entry.offset;
      e.offset = tenth(ms);
      e.fixed = tenth(std::max(0.0, entry.fixed - shift));
      e.preuttr = tenth(entry.preuttr - shift);
      e.overlap = tenth(entry.overlap - shift);
      if (entry.blank < 0) e.blank = tenth(std::min(-0.1, entry.blank + shift));
      break;
    }
    case kFixed:
      e.fixed = tenth(std::max(0.0, ms - entry.offset));
      break;
    case kCutoff:
      e.blank = entry.blank >= 0 ? tenth(std::max(0.0, length - ms)) : tenth(std::min(-0.1, -(ms - entry.offset)));
      break;
    case kPreutterance:
      e.preuttr = tenth(ms - entry.offset);
      break;
    case kOverlap:
      e.overlap = tenth(ms - entry.offset);
      break;
    default:
      break;
  }
  return e;
}

namespace {

const QColor kMarkerColours[5] = {QColor(60, 140, 255), QColor(240, 170, 40), QColor(140, 140, 150),
                                  QColor(230, 60, 60), QColor(60, 200, 110)};
const char* const kMarkerNames[5] = {"offset", "fixed", "cut-off", "pre-utterance", "overlap"};

}  // namespace

WaveView::Marker WaveView::markerAt(double x) const {
  Marker best = kNone;
  double distance = 6.0;
  for (int m = kOffset; m <= kOverlap; ++m) {
    const double d = std::abs(msToX(markerMs(static_cast<Marker>(m))) - x);
    if (d <= distance) {
      distance = d;
      best = static_cast<Marker>(m);
    }
  }
  return best;
}

void WaveView::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const int w = width(), h = height();
  p.fillRect(rect(), QColor(24, 26, 32));
  if (picture_ == nullptr) {
    p.setPen(QColor(200, 200, 210));
    p.drawText(rect(), Qt::AlignCenter, tr("No sample"));
    return;
  }
  const int waveHeight = h * 2 / 5;
  const QRect spectrum(0, waveHeight, w, h - waveHeight);
  p.drawImage(spectrum, picture_->spectrogram);

  // The waveform: the peak of each pixel column.
  const std::vector<float>& s = picture_->samples;
  const double perPixel = static_cast<double>(s.size()) / std::max(w, 1);
  const double middle = waveHeight / 2.0;
  p.setPen(QColor(120, 200, 255));
  for (int x = 0; x < w; ++x) {
    const size_t from = static_cast<size_t>(x * perPixel),
                 to = std::min(s.size(), static_cast<size_t>((x + 1) * perPixel) + 1);
    float low = 0.0f, high = 0.0f;
    for (size_t i = from; i < to; ++i) {
      low = std::min(low, s[i]);
      high = std::max(high, s[i]);
    }
    p.drawLine(QPointF(x, middle - high * middle), QPointF(x, middle - low * middle));
  }

  // The frequency curve of the table, on the spectrogram's scale.
  if (!picture_->frequencies.empty()) {
    QPainterPath path;
    bool drawing = false;
    const double frameMs = 256.0 * 1000.0 / picture_->rate;
    for (size_t k = 0; k < picture_->frequencies.size(); ++k) {
      const double hz = picture_->frequencies[k];
      if (!(hz > 55.0) || hz > kMaxHz) {
        drawing = false;
        continue;
      }
      const QPointF point(msToX(k * frameMs), spectrum.bottom() - hz / kMaxHz * spectrum.height());
      drawing ? path.lineTo(point) : path.moveTo(point);
      drawing = true;
    }
    p.setPen(QPen(QColor(255, 255, 255), 1.5));
    p.drawPath(path);
  }

  // The usable region, then the markers.
  const double left = msToX(markerMs(kOffset)), right = msToX(markerMs(kCutoff));
  p.fillRect(QRectF(0, 0, left, h), QColor(0, 0, 0, 120));
  p.fillRect(QRectF(right, 0, w - right, h), QColor(0, 0, 0, 120));
  p.fillRect(QRectF(left, 0, msToX(markerMs(kFixed)) - left, waveHeight), QColor(240, 170, 40, 45));
  QFont font = p.font();
  font.setPixelSize(11);
  p.setFont(font);
  for (int m = kOffset; m <= kOverlap; ++m) {
    const double x = msToX(markerMs(static_cast<Marker>(m)));
    p.setPen(QPen(kMarkerColours[m], m == dragging_ ? 2.5 : 1.5));
    p.drawLine(QPointF(x, 0), QPointF(x, h));
    p.drawText(QPointF(x + 3, 12 + 12 * m), tr(kMarkerNames[m]));
  }
}

void WaveView::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton || picture_ == nullptr) return;
  dragging_ = markerAt(event->position().x());
  dragStart_ = entry_;
}

void WaveView::mouseMoveEvent(QMouseEvent* event) {
  if (dragging_ == kNone) {
    setCursor(markerAt(event->position().x()) != kNone ? Qt::SizeHorCursor : Qt::ArrowCursor);
    return;
  }
  entry_ = moved(dragStart_, dragging_, xToMs(event->position().x()));
  update();
  emit entryDragged(entry_);
}

void WaveView::mouseReleaseEvent(QMouseEvent* event) {
  if (dragging_ == kNone) return;
  entry_ = moved(dragStart_, dragging_, xToMs(event->position().x()));
  dragging_ = kNone;
  update();
  if (memcmp(&dragStart_, &entry_, sizeof entry_) != 0) emit entryDropped(dragStart_, entry_);
}
