#include "voicebank/spectrum.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "support/regular_file.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"

namespace {

constexpr char kMagic[8] = {'T', 'O', 'N', 'A', 'S', 'P', 'E', 'F'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeadBytes = 28;
constexpr int32_t kHalf = kSpectrumFftSize / 2;  // 512
constexpr double kFloor = 1e-9;                  // amplitude floor of the log spectrum
// The longest table read: 25 minutes of a 44.1 kHz sample.
constexpr uint32_t kMaxFrames = 1u << 18;

void put32(uint8_t* at, uint32_t v) {
  at[0] = static_cast<uint8_t>(v);
  at[1] = static_cast<uint8_t>(v >> 8);
  at[2] = static_cast<uint8_t>(v >> 16);
  at[3] = static_cast<uint8_t>(v >> 24);
}

uint32_t get32(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
         static_cast<uint32_t>(at[3]) << 24;
}

int32_t framesOf(int32_t sampleFrames) { return sampleFrames / kSpectrumFrameStep + 1; }

// v held to 0..last; what is not a number counts as 0.
double within(double v, int32_t last) { return v >= 0.0 ? std::min(v, static_cast<double>(last)) : 0.0; }

}  // namespace

double SpectrumTable::at(double frame, double hz) const {
  if (frames <= 0 || rate <= 0 || values.size() < static_cast<size_t>(frames) * kSpectrumBins) return 0.0;
  const double f = within(frame, frames - 1);
  const double b = within(hz / (rate / 512.0), kSpectrumBins - 1);
  const int32_t f0 = static_cast<int32_t>(f), b0 = static_cast<int32_t>(b);
  const int32_t f1 = std::min(f0 + 1, frames - 1), b1 = std::min(b0 + 1, kSpectrumBins - 1);
  const double ef = f - f0, eb = b - b0;
  auto v = [&](int32_t fr, int32_t bin) {
    return static_cast<double>(values[static_cast<size_t>(fr) * kSpectrumBins + static_cast<size_t>(bin)]);
  };
  const double low = v(f0, b0) + (v(f0, b1) - v(f0, b0)) * eb;
  const double high = v(f1, b0) + (v(f1, b1) - v(f1, b0)) * eb;
  return low + (high - low) * ef;
}

void SpectrumTable::row(double frame, double* out) const {
  if (frames <= 0 || values.size() < static_cast<size_t>(frames) * kSpectrumBins) {
    std::fill(out, out + kSpectrumBins, 0.0);
    return;
  }
  const double f = within(frame, frames - 1);
  const int32_t f0 = static_cast<int32_t>(f), f1 = std::min(f0 + 1, frames - 1);
  const double e = f - f0;
  const float* a = &values[static_cast<size_t>(f0) * kSpectrumBins];
  const float* b = &values[static_cast<size_t>(f1) * kSpectrumBins];
  for (int32_t k = 0; k < kSpectrumBins; ++k) out[k] = a[k] + (b[k] - a[k]) * e;
}

EnvelopeEstimator::EnvelopeEstimator()
    : cosTable_(kSpectrumFftSize),
      sinTable_(kSpectrumFftSize),
      window_(kSpectrumFftSize),
      re_(kSpectrumFftSize + 2),
      im_(kSpectrumFftSize + 2),
      x_(kSpectrumFftSize) {
  calc_cossin(kSpectrumFftSize, cosTable_.data(), sinTable_.data());
}

void EnvelopeEstimator::estimate(const double* frame, double period, double* logEnvelope) {
  // Three periods of Hann window around the middle, as a power of two
  // would not follow the pitch.
  const int32_t length = std::clamp(static_cast<int32_t>(3.0 * period), 256, kSpectrumFftSize);
  const int32_t from = kHalf - length / 2;
  std::fill(x_.begin(), x_.end(), 0.0);
  double energy = 0.0;
  for (int32_t k = 0; k < length; ++k) {
    const double w = 0.5 - 0.5 * std::cos(2.0 * M_PI * (k + 0.5) / length);
    x_[static_cast<size_t>(from + k)] = frame[from + k] * w;
    energy += w;
  }
  fftRealForward(x_.data(), kSpectrumFftSize, re_.data(), im_.data(), cosTable_.data(), sinTable_.data());
  // The log amplitude, normalised by the window so that levels do not
  // depend on its length.
  const double norm = 1.0 / std::max(energy, 1.0);
  for (int32_t k = 0; k <= kHalf; ++k) {
    const double a = std::hypot(re_[static_cast<size_t>(k)], im_[static_cast<size_t>(k)]) * norm;
    logEnvelope[k] = std::log(a + kFloor);
  }
  // Real cepstrum: the inverse transform of the (real, even) log spectrum.
  for (int32_t k = 0; k <= kHalf; ++k) {
    re_[static_cast<size_t>(k)] = logEnvelope[k];
    im_[static_cast<size_t>(k)] = 0.0;
  }
  fftRealInverse(re_.data(), im_.data(), kSpectrumFftSize, x_.data(), cosTable_.data(), sinTable_.data());
  // Lifter below 0.6 of a period (at least 12 quefrency samples), with a
  // short taper; the cepstrum is even, so both ends are kept.
  const int32_t cut = std::clamp(static_cast<int32_t>(0.6 * period), 12, kHalf - 1);
  for (int32_t q = 0; q < kSpectrumFftSize; ++q) {
    const int32_t d = q <= kHalf ? q : kSpectrumFftSize - q;
    double w = 0.0;
    if (d < cut - 4) {
      w = 1.0;
    } else if (d < cut + 4) {
      w = 0.5 + 0.5 * std::cos(M_PI * (d - cut + 4) / 8.0);
    }
    x_[static_cast<size_t>(q)] *= w;
  }
  fftRealForward(x_.data(), kSpectrumFftSize, re_.data(), im_.data(), cosTable_.data(), sinTable_.data());
  for (int32_t k = 0; k <= kHalf; ++k) logEnvelope[k] = re_[static_cast<size_t>(k)];
}

bool computeSpectrum(const int16_t* words, int32_t frames, int32_t stride, int32_t rate, const double* f0,
                     int32_t f0Count, double average, SpectrumTable* out) {
  if (words == nullptr || frames <= 0 || stride < 1 || rate <= 0 || out == nullptr) return false;
  const double fallback = average > 55.0 ? average : 200.0;
  SpectrumTable table;
  table.rate = rate;
  table.frames = framesOf(frames);
  table.values.assign(static_cast<size_t>(table.frames) * kSpectrumBins, 0.0f);
  EnvelopeEstimator estimator;
  std::vector<double> frame(kSpectrumFftSize), envelope(kHalf + 1);
  for (int32_t j = 0; j < table.frames; ++j) {
    const int64_t centre = static_cast<int64_t>(j) * kSpectrumFrameStep;
    for (int32_t k = 0; k < kSpectrumFftSize; ++k) {
      const int64_t at = centre - kHalf + k;
      frame[static_cast<size_t>(k)] = at >= 0 && at < frames ? words[at * stride] : 0.0;
    }
    double hz = f0 != nullptr && j < f0Count ? f0[j] : 0.0;
    if (!(hz > 55.0) || hz > 3.0 * fallback) hz = fallback;
    estimator.estimate(frame.data(), rate / hz, envelope.data());
    // 257 bins of rate/512: every other bin of the 1024-point envelope.
    float* row = &table.values[static_cast<size_t>(j) * kSpectrumBins];
    for (int32_t b = 0; b < kSpectrumBins; ++b) row[b] = static_cast<float>(envelope[static_cast<size_t>(2 * b)]);
  }
  *out = std::move(table);
  return true;
}

std::string spectrumFilePath(const char* samplePath) { return frequencyTablePath(samplePath, "spef"); }

namespace {

// The header of a file of `size` bytes: the table it announces, with no
// values yet. False unless the header is ours, matches the rate and frame
// count asked for (0: any) and the size is exactly what it announces.
bool readHead(const uint8_t* head, uint64_t size, int32_t rate, int32_t frames, SpectrumTable* table) {
  if (size < kHeadBytes || memcmp(head, kMagic, sizeof kMagic) != 0) return false;
  if (get32(head + 8) != kVersion || get32(head + 16) != static_cast<uint32_t>(kSpectrumFrameStep) ||
      get32(head + 20) != static_cast<uint32_t>(kSpectrumBins)) {
    return false;
  }
  const uint32_t fileRate = get32(head + 12), fileFrames = get32(head + 24);
  if (rate > 0 && fileRate != static_cast<uint32_t>(rate)) return false;
  if (frames > 0 && fileFrames != static_cast<uint32_t>(frames)) return false;
  if (fileRate == 0 || fileRate > 1000000 || fileFrames == 0 || fileFrames > kMaxFrames) return false;
  const uint64_t values = static_cast<uint64_t>(fileFrames) * kSpectrumBins;
  if (size != kHeadBytes + values * 4) return false;
  table->rate = static_cast<int32_t>(fileRate);
  table->frames = static_cast<int32_t>(fileFrames);
  table->values.resize(static_cast<size_t>(values));
  return true;
}

// The values, read as little-endian words into the table in place; false
// when one is not finite.
bool finishValues(SpectrumTable* table) {
#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
  for (float& v : table->values) {
    uint8_t bytes[4];
    memcpy(bytes, &v, 4);
    const uint32_t word = get32(bytes);
    memcpy(&v, &word, 4);
  }
#endif
  for (const float v : table->values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

}  // namespace

bool readSpectrumFile(const std::string& bytes, int32_t rate, int32_t frames, SpectrumTable* out) {
  const auto* head = reinterpret_cast<const uint8_t*>(bytes.data());
  SpectrumTable table;
  if (!readHead(head, bytes.size(), rate, frames, &table)) return false;
  memcpy(table.values.data(), head + kHeadBytes, table.values.size() * 4);
  if (!finishValues(&table)) return false;
  *out = std::move(table);
  return true;
}

bool readSpectrumFile(const char* path, int32_t rate, int32_t frames, SpectrumTable* out) {
  FILE* file = openRegularFile(path, "rb");
  if (file == nullptr) return false;
  // The size comes from the file system and must be the one the header
  // announces: nothing is allocated for a file that claims more.
  struct stat info;
  uint8_t head[kHeadBytes];
  SpectrumTable table;
  const bool sound = fstat(fileno(file), &info) == 0 && info.st_size >= 0 &&
                     fread(head, 1, kHeadBytes, file) == kHeadBytes &&
                     readHead(head, static_cast<uint64_t>(info.st_size), rate, frames, &table) &&
                     fread(table.values.data(), 4, table.values.size(), file) == table.values.size();
  fclose(file);
  if (!sound || !finishValues(&table)) return false;
  *out = std::move(table);
  return true;
}

int32_t writeSpectrumFile(const char* path, const SpectrumTable& table) {
  const size_t values = static_cast<size_t>(table.frames) * kSpectrumBins;
  if (table.values.size() != values) return 0;
  std::vector<uint8_t> bytes(kHeadBytes + values * 4);
  memcpy(bytes.data(), kMagic, sizeof kMagic);
  put32(&bytes[8], kVersion);
  put32(&bytes[12], static_cast<uint32_t>(table.rate));
  put32(&bytes[16], static_cast<uint32_t>(kSpectrumFrameStep));
  put32(&bytes[20], static_cast<uint32_t>(kSpectrumBins));
  put32(&bytes[24], static_cast<uint32_t>(table.frames));
  for (size_t k = 0; k < values; ++k) {
    uint32_t word;
    memcpy(&word, &table.values[k], sizeof word);
    put32(&bytes[kHeadBytes + k * 4], word);
  }
  // Written to a name of its own and renamed: a reader never meets half a file.
  const std::string temporary = std::string(path) + ".part" + std::to_string(reinterpret_cast<uintptr_t>(&table));
  FILE* file = fopen(temporary.c_str(), "wb");
  if (file == nullptr) return 0;
  const bool written = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  const bool closed = fclose(file) == 0;
  if (!written || !closed || rename(temporary.c_str(), path) != 0) {
    remove(temporary.c_str());
    return 0;
  }
  return 1;
}

bool GetSpectrum(const char* samplePath, const int16_t* words, int32_t frames, int32_t stride, int32_t rate,
                 const double* f0, int32_t f0Count, double average, SpectrumTable* out) {
  const std::string path = samplePath != nullptr ? spectrumFilePath(samplePath) : std::string();
  if (!path.empty()) {
    struct stat sample, table;
    const bool fresh = stat(samplePath, &sample) == 0 && stat(path.c_str(), &table) == 0 &&
                       table.st_mtime >= sample.st_mtime;
    if (fresh && readSpectrumFile(path.c_str(), rate, framesOf(frames), out)) return true;
  }
  if (!computeSpectrum(words, frames, stride, rate, f0, f0Count, average, out)) return false;
  if (!path.empty()) writeSpectrumFile(path.c_str(), *out);
  return true;
}
