// tona play PROJECT [--from TICK] [--to TICK] [--voice-dir DIR] [--device NAME]
//                   [--list-devices] [--render-first]
//
// Plays a project through the sound card while it renders.

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/progress.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "app/voice_bank.h"
#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "playback/audioout.h"
#include "playback/sdl_output.h"
#include "support/userdirs.h"

const char kPlayUsage[] =
    "usage: tona play PROJECT [--from TICK] [--to TICK] [--voice-dir DIR] [--device NAME]\n"
    "                 [--list-devices] [--render-first]\n"
    "\n"
    "Plays the project through the sound card while it renders: playback\n"
    "starts as soon as the render is safely ahead, and waits whenever it\n"
    "catches up. On a terminal a status line shows the play and render\n"
    "positions; space pauses and resumes, r rewinds, q or Ctrl-C stops.\n"
    "  --from, --to     play the notes from tick FROM to tick TO\n"
    "  --voice-dir DIR  the voice bank to sing with (default: the project's)\n"
    "  --device NAME    the output device (default: the system's default)\n"
    "  --list-devices   list the output devices and exit\n"
    "  --render-first   render everything before playing (no waiting)\n"
    "The audio system is SDL's: SDL_AUDIODRIVER chooses its driver.\n";

namespace {

volatile sig_atomic_t interrupted = 0;
void onInterrupt(int) { interrupted = 1; }

std::atomic<bool> started{false};
std::atomic<bool> stopped{false};
void onPlayStart() { started = true; }
void onPlayStop() { stopped = true; }

// The terminal in single-key mode for the life of the object.
class KeyReader {
 public:
  KeyReader() : active_(isatty(STDIN_FILENO) && isatty(STDERR_FILENO) && tcgetattr(STDIN_FILENO, &saved_) == 0) {
    if (!active_) return;
    termios raw = saved_;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~KeyReader() {
    if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  bool active() const { return active_; }
  // The next key pressed within `ms`, or 0.
  char next(int ms) {
    if (!active_) {
      usleep(static_cast<useconds_t>(ms) * 1000);
      return 0;
    }
    pollfd in = {STDIN_FILENO, POLLIN, 0};
    char key = 0;
    if (poll(&in, 1, ms) > 0 && read(STDIN_FILENO, &key, 1) == 1) return key;
    return 0;
  }

 private:
  bool active_;
  termios saved_;
};


void drawStatus(double playMs, double renderMs, double totalMs, bool paused, bool rendering) {
  const int width = 30;
  const int filled = totalMs > 0.0 ? static_cast<int>(std::min(1.0, playMs / totalMs) * width) : 0;
  std::string bar(static_cast<size_t>(filled), '#');
  bar.append(static_cast<size_t>(width - filled), '-');
  fprintf(stderr, "\r\033[Kplay %s  render %s / %s [%s]%s", clockText(playMs).c_str(),
          rendering ? clockText(renderMs).c_str() : "done", clockText(totalMs).c_str(), bar.c_str(),
          paused ? "  paused" : "");
  fflush(stderr);
}

}  // namespace

int runPlay(int argc, char** argv) {
  const Command& command = *findCommand("play");
  std::string fromText, toText, voiceDir, deviceName;
  bool listDevices = false, renderFirst = false;
  ArgParser parser(command);
  parser.option("--from", &fromText);
  parser.option("--to", &toText);
  parser.option("--voice-dir", &voiceDir);
  parser.option("--device", &deviceName);
  parser.flag("--list-devices", &listDevices);
  parser.flag("--render-first", &renderFirst);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 0, 1);
  if (status >= 0) return status;
  if (listDevices) {
    std::string error;
    const std::vector<std::string> names = listAudioDevices(&error);
    if (!error.empty()) {
      fprintf(stderr, "tona play: %s\n", error.c_str());
      return kExitFailure;
    }
    for (const std::string& name : names) printf("%s\n", name.c_str());
    if (names.empty()) printf("(no output device listed; the default one may still play)\n");
    return kExitOk;
  }
  if (args.size() != 1) return usageError(command, "no project given");
  long from = 0, to = 0;
  if (!fromText.empty() && !parseInt(fromText, 0, INT32_MAX, &from)) return usageError(command, "--from takes ticks");
  if (!toText.empty() && !parseInt(toText, 0, INT32_MAX, &to)) return usageError(command, "--to takes ticks");
  if (!toText.empty() && from >= to) return usageError(command, "--from must come before --to");

  const std::string& project = args[0];
  CScaleMan scale;
  CNoteMan manager(&scale);
  ctonm2& engine = *manager.engine();
  if (!openProjectFile(manager, project, "play")) return kExitFailure;
  // The playback start's own refusals, in its order and with its texts: no
  // notes, then no voice folder, then no voice bank there.
  if (engine.noteCount == 0) {
    fprintf(stderr, "tona play: 音符がありません (the project has no notes)\n");
    return kExitFailure;
  }
  // An empty "VoiceDir=" reads as "/": no folder either.
  if (voiceDir.empty() && (engine.voiceDir[0] == '\0' || strcmp(engine.voiceDir, "/") == 0)) {
    fprintf(stderr, "tona play: 原音パスを設定してください (the project names no voice bank: --voice-dir)\n");
    return kExitFailure;
  }
  {
    const std::string named = voiceDir.empty() ? std::string(engine.voiceDir) : voiceDir;
    bool announce = false;
    const std::string bank = resolveVoiceBank(project, named, &announce);
    engine.set_voiceDir(bank.c_str());
    if (bank.empty() || manager.readVoiceset() < 1) {
      fprintf(stderr, "tona play: 原音が選択されていません (no voice bank at '%s')\n",
              bank.empty() ? named.c_str() : engine.voiceDir);
      return kExitFailure;
    }
    if (announce) fprintf(stderr, "voice bank '%s' is taken from '%s'\n", named.c_str(), engine.voiceDir);
  }
  dropImpossibleNotes(manager);

  std::string error;
  std::unique_ptr<AudioDevice> device = openAudioDevice(deviceName.c_str(), &error);
  if (device == nullptr) {
    fprintf(stderr, "tona play: no audio output: %s\n", error.c_str());
    return kExitFailure;
  }
  CAudioOut player(device.get());
  CAudioOut::on_play_start = onPlayStart;
  CAudioOut::on_play_stop = onPlayStop;
  if (renderFirst) {
    // Played only once everything is rendered, so it never waits.
    engine.earlyStartScale = HUGE_VAL;
    CAudioOut::pauseAtDelay = 1;
  }
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  std::string message;
  const int32_t result = manager.playStart(from, toText.empty() ? 0 : to, nullptr, CAudioOut::play_trigger,
                                           CAudioOut::set_render_pos, nullptr, &message);
  if (result <= 0) {
    fprintf(stderr, "tona play: %s\n", message.empty() ? "the render could not start" : message.c_str());
    return kExitFailure;
  }
  fprintf(stderr, "playing on %s\n", player.deviceName());

  KeyReader keys;
  const double totalMs = engine.totalLength;
  bool paused = false;
  for (;;) {
    const bool rendering = engine.renderState.load() != 0;
    if (interrupted || (started && stopped) || (!rendering && !started)) break;
    const char key = keys.next(50);
    if (key == 'q' || key == 'Q') break;
    if (key == ' ' && started) {
      paused ? player.play_start() : player.play_pause();
      paused = !paused;
    }
    if ((key == 'r' || key == 'R') && started) CAudioOut::PlayingPos = CAudioOut::offset.load();
    if (keys.active()) {
      drawStatus(CAudioOut::PlayingPos.load() / 44.1, CAudioOut::renderPos.load() / 44.1, totalMs, paused, rendering);
    }
  }
  if (keys.active()) fputs("\r\033[K", stderr);
  if (engine.renderState.load() != 0) engine.render_stop();
  uint8_t* block = engine.render_thread_join(nullptr);
  player.play_stop();
  if (!started) free(block);  // never handed to the player, which frees what it was given
  CAudioOut::on_play_start = nullptr;
  CAudioOut::on_play_stop = nullptr;
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  if (!started && !interrupted) {
    fprintf(stderr, "tona play: nothing to play\n");
    return kExitFailure;
  }
  return interrupted ? 130 : kExitOk;
}
