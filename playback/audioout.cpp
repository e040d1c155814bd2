#include "playback/audioout.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

CAudioOut* CAudioOut::_inst = nullptr;
void (*CAudioOut::on_play_start)() = nullptr;
void (*CAudioOut::on_play_stop)() = nullptr;
std::atomic<int16_t*> CAudioOut::data{nullptr};
std::atomic<uint32_t> CAudioOut::length{0};
std::atomic<uint32_t> CAudioOut::offset{0};
std::atomic<int32_t> CAudioOut::play_offset{0};
std::atomic<uint32_t> CAudioOut::PlayingPos{0};
std::atomic<uint32_t> CAudioOut::renderPos{0};
std::atomic<int32_t> CAudioOut::NowPlaying{0};
std::atomic<int32_t> CAudioOut::pauseAtDelay{0};
std::atomic<bool> CAudioOut::active_{false};
std::atomic<int16_t*> CAudioOut::retired_{nullptr};

CAudioOut::CAudioOut(AudioDevice* device) : device_(device) {
  NowPlaying = 0;
  _inst = this;
}

CAudioOut::~CAudioOut() {
  if (_inst == this) {
    play_stop();
    _inst = nullptr;
  }
  reclaim();
}

const char* CAudioOut::deviceName() const { return device_ != nullptr ? device_->name() : "(none)"; }

bool CAudioOut::startAudioOut() {
  if (device_ != nullptr && !device_->start()) return false;
  active_ = true;
  running_ = true;
  return true;
}

bool CAudioOut::stopAudioOut() {
  active_ = false;
  if (device_ != nullptr && !device_->stop()) return false;
  running_ = false;
  return true;
}

void CAudioOut::reclaim() { free(retired_.exchange(nullptr)); }

void CAudioOut::play_trigger(void*, uint8_t* block, int32_t offsetBytes, int32_t lengthBytes, int32_t playOffset) {
  CAudioOut* self = _inst;
  // The device is stopped first, so that no IO procedure still reads the
  // buffer that is replaced.
  if (self != nullptr && self->running_) self->stopAudioOut();
  reclaim();
  length = 0;
  free(data.exchange(reinterpret_cast<int16_t*>(block)));
  offset = static_cast<uint32_t>(std::max(offsetBytes, 0) / 2);
  PlayingPos = offset.load();
  play_offset = playOffset + static_cast<int32_t>(kMargin);
  length = static_cast<uint32_t>(std::max(lengthBytes, 0) / 2);
  NowPlaying = 1;
  if (self != nullptr) {
    self->startAudioOut();
    self->waiting_ = false;
  }
  if (on_play_start != nullptr) on_play_start();
}

void CAudioOut::ioProc(float* out, int32_t frames, int32_t channels) {
  if (out == nullptr || frames <= 0 || channels <= 0) return;
  std::fill(out, out + static_cast<size_t>(frames) * static_cast<size_t>(channels), 0.0f);
  CAudioOut* self = _inst;
  if (self == nullptr || !active_) return;  // a stopped device stands still
  const int16_t* samples = data.load();
  const uint32_t end = length.load();
  const uint32_t position = PlayingPos.load();
  for (int32_t f = 0; samples != nullptr && f < frames && position + static_cast<uint32_t>(f) < end; ++f) {
    const float value = samples[position + static_cast<uint32_t>(f)] * 3.0517578e-5f;
    for (int32_t c = 0; c < channels; ++c) out[f * channels + c] = value;
  }
  const uint32_t next = position + static_cast<uint32_t>(frames);
  PlayingPos = next;
  const uint32_t rendered = renderPos.load();
  if (rendered != 0 && rendered < next + kMargin && self->running_ && !self->waiting_) {
    active_ = false;  // caught up with the render
    if (pauseAtDelay) {
      self->running_ = false;
    } else {
      self->waiting_ = true;
    }
  }
  if (next >= end && NowPlaying) {
    active_ = false;
    self->running_ = false;
    if (on_play_stop != nullptr) on_play_stop();
    length = 0;
    retired_ = data.exchange(nullptr);  // freed by reclaim, off this thread
    NowPlaying = 0;
  }
}

void CAudioOut::set_render_pos(void*, double msec) {
  const double samples = std::floor(msec * 0.001 * 44100.0);
  const uint32_t position = !(samples > 0.0) ? 0 : samples >= 4294967295.0 ? 4294967295u : static_cast<uint32_t>(samples);
  renderPos = position;
  CAudioOut* self = _inst;
  if (self == nullptr) return;
  if (position != 0 && position < PlayingPos.load() + kMargin) {
    // Behind: wait (a report still behind while waiting keeps waiting,
    // rather than play a few samples and stop again).
    if (self->running_ && !self->waiting_) {
      self->stopAudioOut();
      self->running_ = true;  // still playing: only waiting for the render
      self->waiting_ = true;
    }
  } else if (self->running_ && self->waiting_) {
    self->startAudioOut();
    self->waiting_ = false;
  }
}

void CAudioOut::play_start() {
  if (!running_) startAudioOut();
}

void CAudioOut::play_pause() {
  if (running_) stopAudioOut();
}

void CAudioOut::play_stop() {
  if (running_ || active_) stopAudioOut();
  if (!NowPlaying && data.load() == nullptr) {
    reclaim();
    return;  // nothing playing: on_play_stop came already
  }
  if (on_play_stop != nullptr) on_play_stop();
  length = 0;
  free(data.exchange(nullptr));
  NowPlaying = 0;
  reclaim();
}
