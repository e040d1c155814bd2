#include "playback/sdl_output.h"

#include <SDL.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace {

// The sound libraries below SDL print their own diagnostics on standard
// error (ALSA's dozen lines when there is no card); the command says what
// failed in one line of its own. TONA_AUDIO_DEBUG keeps them.
class QuietStderr {
 public:
  QuietStderr() {
    if (getenv("TONA_AUDIO_DEBUG") != nullptr) return;
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0) return;
    fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    if (saved_ >= 0) dup2(null, STDERR_FILENO);
    close(null);
  }
  ~QuietStderr() {
    if (saved_ < 0) return;
    fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int saved_ = -1;
};

// One reference to SDL's audio system per open device or listing.
class SdlAudio {
 public:
  SdlAudio() {
    QuietStderr quiet;
    // The programs handle their own signals: SDL's handlers would turn
    // SIGTERM into an event nobody reads, and the process would not end.
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    ok_ = SDL_InitSubSystem(SDL_INIT_AUDIO) == 0;
  }
  ~SdlAudio() {
    if (ok_) SDL_QuitSubSystem(SDL_INIT_AUDIO);
  }
  SdlAudio(const SdlAudio&) = delete;
  SdlAudio& operator=(const SdlAudio&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

// What was tried, for an error message: the drivers SDL knows.
std::string driversTried() {
  std::string names;
  for (int i = 0; i < SDL_GetNumAudioDrivers(); ++i) names += std::string(i > 0 ? ", " : "") + SDL_GetAudioDriver(i);
  return names.empty() ? "none" : names;
}

class SdlDevice : public AudioDevice {
 public:
  bool open(const char* name, std::string* error) {
    if (!audio_.ok()) {
      *error = std::string("cannot start SDL audio (drivers known: ") + driversTried() + "): " + SDL_GetError();
      return false;
    }
    SDL_AudioSpec want, have;
    SDL_zero(want);
    want.freq = 44100;
    want.format = AUDIO_F32SYS;
    want.channels = 2;
    want.samples = 1024;
    want.callback = callback;
    want.userdata = this;
    const bool named = name != nullptr && name[0] != '\0';
    {
      QuietStderr quiet;
      device_ = SDL_OpenAudioDevice(named ? name : nullptr, 0, &want, &have, SDL_AUDIO_ALLOW_CHANNELS_CHANGE);
    }
    if (device_ == 0) {
      *error = std::string("cannot open ") + (named ? std::string("'") + name + "'" : std::string("the default output device")) +
               " with SDL's " + (SDL_GetCurrentAudioDriver() != nullptr ? SDL_GetCurrentAudioDriver() : "(no)") +
               " driver (drivers known: " + driversTried() + "): " + SDL_GetError();
      return false;
    }
    channels_ = have.channels;
    name_ = named ? name : "default";
    char* defaultName = nullptr;
    SDL_AudioSpec defaultFormat;
    if (!named && SDL_GetDefaultAudioInfo(&defaultName, &defaultFormat, 0) == 0 && defaultName != nullptr) {
      name_ = defaultName;
      SDL_free(defaultName);
    }
    name_ += std::string(" (") + SDL_GetCurrentAudioDriver() + ")";
    return true;
  }
  ~SdlDevice() override {
    if (device_ != 0) SDL_CloseAudioDevice(device_);
  }
  // Pausing takes the device's lock, which SDL holds around the callback:
  // when it returns, no callback is running.
  bool start() override {
    SDL_PauseAudioDevice(device_, 0);
    return true;
  }
  bool stop() override {
    SDL_PauseAudioDevice(device_, 1);
    return true;
  }
  const char* name() const override { return name_.c_str(); }
  int32_t channels() const override { return channels_; }

 private:
  static void callback(void* user, Uint8* stream, int bytes) {
    SdlDevice* self = static_cast<SdlDevice*>(user);
    CAudioOut::ioProc(reinterpret_cast<float*>(stream), bytes / static_cast<int>(sizeof(float)) / self->channels_,
                      self->channels_);
  }

  SdlAudio audio_;
  SDL_AudioDeviceID device_ = 0;
  int32_t channels_ = 2;
  std::string name_;
};

}  // namespace

std::unique_ptr<AudioDevice> openAudioDevice(const char* name, std::string* error) {
  std::unique_ptr<SdlDevice> device(new SdlDevice);
  std::string reason;
  if (!device->open(name, &reason)) {
    if (error != nullptr) *error = reason;
    return nullptr;
  }
  return device;
}

std::vector<std::string> listAudioDevices(std::string* error) {
  std::vector<std::string> names;
  SdlAudio audio;
  if (!audio.ok()) {
    if (error != nullptr) *error = std::string("cannot start SDL audio: ") + SDL_GetError();
    return names;
  }
  for (int i = 0; i < SDL_GetNumAudioDevices(0); ++i) {
    if (const char* name = SDL_GetAudioDeviceName(i, 0)) names.push_back(name);
  }
  return names;
}
