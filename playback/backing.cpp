#include "playback/backing.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>

#include "engine/ranges.h"

bool BackingTrack::load(const std::string& path, std::string* error) {
  SF_INFO info = {};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) {
    *error = "cannot read " + path + ": " + sf_strerror(nullptr);
    return false;
  }
  struct Closer {
    SNDFILE* f;
    ~Closer() { sf_close(f); }
  } closer{file};
  if (info.channels <= 0 || info.samplerate <= 0 || info.frames <= 0) {
    *error = path + " holds no audio";
    return false;
  }
  if (static_cast<double>(info.frames) / info.samplerate > kMaxMinutes * 60.0) {
    *error = path + " is longer than 60 minutes";
    return false;
  }
  // Read in blocks and mixed down to mono as it comes.
  std::vector<float> mono;
  mono.reserve(static_cast<size_t>(info.frames));
  const int32_t channels = info.channels;
  constexpr sf_count_t kBlock = 16384;
  std::vector<float> block(static_cast<size_t>(kBlock) * static_cast<size_t>(channels));
  for (;;) {
    const sf_count_t got = sf_readf_float(file, block.data(), kBlock);
    if (got <= 0) break;
    for (sf_count_t f = 0; f < got; ++f) {
      float sum = 0.0f;
      for (int32_t c = 0; c < channels; ++c) sum += block[static_cast<size_t>(f * channels + c)];
      mono.push_back(sum / static_cast<float>(channels));
    }
  }
  if (sf_error(file) != SF_ERR_NO_ERROR) {
    *error = "cannot read " + path + ": " + sf_strerror(file);
    return false;
  }
  if (mono.empty()) {
    *error = path + " holds no audio";
    return false;
  }

  std::vector<float> out;
  if (info.samplerate == 44100) {
    out.swap(mono);
  } else {
    out.resize(static_cast<size_t>(std::ceil(mono.size() * 44100.0 / info.samplerate)) + 16);
    size_t made = 0;
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(2);
    const soxr_error_t failed = soxr_oneshot(info.samplerate, 44100, 1, mono.data(), mono.size(), nullptr, out.data(),
                                             out.size(), &made, nullptr, &quality, &runtime);
    if (failed != nullptr) {
      *error = "cannot resample " + path + ": " + failed;
      return false;
    }
    out.resize(made);
  }

  path_ = path;
  samples_.swap(out);
  sourceRate_ = info.samplerate;
  sourceChannels_ = channels;
  const size_t blocks = (samples_.size() + kSummaryBlock - 1) / kSummaryBlock;
  lows_.assign(blocks, 0.0f);
  highs_.assign(blocks, 0.0f);
  for (size_t b = 0; b < blocks; ++b) {
    const auto first = samples_.begin() + static_cast<long>(b * kSummaryBlock);
    const auto last = samples_.begin() + static_cast<long>(std::min(samples_.size(), (b + 1) * kSummaryBlock));
    const auto [low, high] = std::minmax_element(first, last);
    lows_[b] = *low;
    highs_[b] = *high;
  }
  return true;
}

void BackingTrack::clear() {
  path_.clear();
  samples_.clear();
  lows_.clear();
  highs_.clear();
  sourceRate_ = sourceChannels_ = 0;
}

void BackingTrack::lay(void* context, int16_t* mix, int32_t samples, double songMs) {
  const BackingTrack& self = *static_cast<const BackingTrack*>(context);
  if (self.muted || self.samples_.empty() || samples <= 0) return;
  bool moved = false;
  const float gain = static_cast<float>(ranges::kBackingVolume.clamp(self.volume, &moved)) / 100.0f * 32767.0f;
  // Mix sample k is track sample k + shift.
  const int64_t shift = std::llround((songMs - self.offsetMs) * 44.1);
  const int64_t count = static_cast<int64_t>(self.samples_.size());
  const int64_t first = std::max<int64_t>(0, -shift);
  const int64_t last = std::min<int64_t>(samples, count - shift);
  for (int64_t k = first; k < last; ++k) {
    const float value = mix[k] + self.samples_[static_cast<size_t>(k + shift)] * gain;
    mix[k] = static_cast<int16_t>(std::lround(std::clamp(value, -32767.0f, 32767.0f)));
  }
}

void BackingTrack::range(int64_t from, int64_t to, float* low, float* high) const {
  const int64_t count = static_cast<int64_t>(samples_.size());
  from = std::clamp<int64_t>(from, 0, count);
  to = std::clamp<int64_t>(to, 0, count);
  *low = *high = 0.0f;
  if (from >= to) return;
  float lo = samples_[static_cast<size_t>(from)], hi = lo;
  auto raw = [&](int64_t a, int64_t b) {
    for (int64_t k = a; k < b; ++k) {
      lo = std::min(lo, samples_[static_cast<size_t>(k)]);
      hi = std::max(hi, samples_[static_cast<size_t>(k)]);
    }
  };
  // Whole blocks from the summary, the ragged ends sample by sample.
  const int64_t firstBlock = (from + kSummaryBlock - 1) / kSummaryBlock, lastBlock = to / kSummaryBlock;
  if (firstBlock >= lastBlock) {
    raw(from, to);
  } else {
    raw(from, firstBlock * kSummaryBlock);
    for (int64_t b = firstBlock; b < lastBlock; ++b) {
      lo = std::min(lo, lows_[static_cast<size_t>(b)]);
      hi = std::max(hi, highs_[static_cast<size_t>(b)]);
    }
    raw(lastBlock * kSummaryBlock, to);
  }
  *low = lo;
  *high = hi;
}
