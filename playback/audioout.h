// CAudioOut: plays a song while it is still being rendered.
//
// The render thread hands over the growing 16-bit mix with play_trigger
// and reports its progress with set_render_pos; the output device's IO
// procedure pulls samples from the mix and stops the device whenever it
// catches up with the render (fewer than 1024 samples ahead), to start
// again once the render is 1024 samples ahead.
//
// The playback state is process-wide (one player per process) and held in
// atomics: the IO procedure runs on the audio thread, takes no lock,
// allocates and frees nothing and touches no file. A buffer it lets go of
// at the end of play is freed later by another thread (reclaim).
#pragma once

#include <atomic>
#include <cstdint>

// An output device: a stream of 32-bit float frames at 44100 Hz that calls
// CAudioOut::ioProc while started. start and stop are never called from
// the IO procedure itself, and stop returns only when the IO procedure is
// not running.
class AudioDevice {
 public:
  virtual ~AudioDevice() = default;
  virtual bool start() = 0;
  virtual bool stop() = 0;
  virtual const char* name() const = 0;
  virtual int32_t channels() const = 0;
};

class CAudioOut {
 public:
  static constexpr uint32_t kMargin = 1024;  // samples rendered ahead before playing on

  // Takes the device (may be null: a player that is driven by calling
  // ioProc directly, as the tests do) and becomes the process's player.
  explicit CAudioOut(AudioDevice* device);
  ~CAudioOut();
  CAudioOut(const CAudioOut&) = delete;
  CAudioOut& operator=(const CAudioOut&) = delete;

  // --- Engine hooks (the context is not used) -------------------------------
  // Takes over `data` (a malloc block) and starts playing from offsetBytes.
  static void play_trigger(void* context, uint8_t* data, int32_t offsetBytes, int32_t lengthBytes,
                           int32_t playOffset);
  // How far the render has got, in msec of audio (0: no report).
  static void set_render_pos(void* context, double msec);

  // The IO procedure: `frames` frames of `channels` floats.
  static void ioProc(float* out, int32_t frames, int32_t channels);

  // Resumes (starts the device when not running), pauses, stops for good.
  void play_start();
  void play_pause();
  void play_stop();
  // Frees a buffer the IO procedure let go of; not on the audio thread.
  static void reclaim();

  bool running() const { return running_.load(); }
  bool waiting() const { return waiting_.load(); }
  const char* deviceName() const;

  static CAudioOut* _inst;
  // Optional notifications; on_play_stop may come from the audio thread.
  static void (*on_play_start)();
  static void (*on_play_stop)();
  static std::atomic<int16_t*> data;
  static std::atomic<uint32_t> length;  // samples in data
  static std::atomic<uint32_t> offset;  // where playback started
  static std::atomic<int32_t> play_offset;
  static std::atomic<uint32_t> PlayingPos;
  static std::atomic<uint32_t> renderPos;
  static std::atomic<int32_t> NowPlaying;
  // Set: catching up with the render stops playback instead of waiting.
  static std::atomic<int32_t> pauseAtDelay;

 private:
  bool startAudioOut();
  bool stopAudioOut();
  // The device as the IO procedure sees it: off, it plays silence and
  // stands still. Stopping from the IO procedure only clears this.
  static std::atomic<bool> active_;
  static std::atomic<int16_t*> retired_;

  AudioDevice* device_;
  std::atomic<bool> running_{false};
  std::atomic<bool> waiting_{false};
};
