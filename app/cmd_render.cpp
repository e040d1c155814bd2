// tona render PROJECT [-o OUT.wav] [--jobs N] [--from TICK] [--to TICK]
//                     [--no-cache] [--voice-dir DIR] [--log-level N]

#include <strings.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/progress.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "app/voice_bank.h"
#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "render/cache.h"
#include "render/renderfile.h"
#include "render/wavefile.h"
#include "support/log.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

const char kRenderUsage[] =
    "usage: tona render PROJECT [-o OUT.wav] [--jobs N] [--from TICK] [--to TICK]\n"
    "                   [--no-cache] [--cache-limit SIZE] [--voice-dir DIR] [--log-level N]\n"
    "                   [--charset utf-8|shift_jis]\n"
    "\n"
    "Renders a project to a 16-bit mono 44.1 kHz WAV file: by default beside\n"
    "the project, named as its output file (the name only, ending in .wav)\n"
    "or as the project itself. Only a WAV file is ever written over.\n"
    "  -o OUT.wav       the output file (- for standard output), or a folder\n"
    "  --jobs N         render on N threads (default: the number of cores); the\n"
    "                   same project gives the same bytes on any number\n"
    "  --from, --to     render only the notes starting in [FROM, TO) ticks\n"
    "  --no-cache       do not read or write the render cache\n"
    "  --cache-limit SIZE  keep the render cache within SIZE bytes (K, M, G\n"
    "                   suffixes; default 1G): the oldest files go first\n"
    "  --voice-dir DIR  the voice bank to sing with (default: the project's;\n"
    "                   a relative folder is taken from the project's folder)\n"
    "  --log-level N    log to stderr up to level N (1 errors .. 6 everything;\n"
    "                   default 0: only the command's own messages)\n"
    "  --charset SET    read the project in this charset (default: as it says,\n"
    "                   or by its bytes when it says nothing)\n"
    "Ctrl-C stops the render and writes nothing.\n";

namespace {

ctonm2* interruptedEngine = nullptr;

void onInterrupt(int) {
  if (interruptedEngine != nullptr) interruptedEngine->renderState.store(2);  // lock-free: safe here
}

double* cacheGet(int32_t index, const NoteData* note, int32_t* bytes) { return CCacheSys::getCache(index, note, bytes); }

void cachePut(int32_t index, const NoteData* note, const double* data, int32_t bytes) {
  CCacheSys::putCache(index, note, data, bytes);
}

void onProgress(void* context, int32_t done, int32_t total) {
  if (total > 0) static_cast<ProgressBar*>(context)->update(done);
}

// The file name a render takes from the project's output name: its last
// part (after "/" or "\\"), ending in .wav; the project's own name when it
// gives none.
std::string outputFileName(const std::string& named, const std::string& project) {
  std::string name = named;
  const size_t cut = name.find_last_of("/\\");
  if (cut != std::string::npos) name.erase(0, cut + 1);
  if (name.empty() || name == "." || name == "..") {
    name = project.substr(project.rfind('/') == std::string::npos ? 0 : project.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) name.erase(dot);
  }
  const size_t dot = name.rfind('.');
  const std::string extension = dot == std::string::npos ? std::string() : name.substr(dot);
  if (strcasecmp(extension.c_str(), ".wav") != 0 && strcasecmp(extension.c_str(), ".wave") != 0) name += ".wav";
  return name;
}

}  // namespace

int runRender(int argc, char** argv) {
  const Command& command = *findCommand("render");
  std::string output, jobsText, fromText, toText, voiceDir, levelText, limitText, charsetText, charset;
  bool noCache = false;
  ArgParser parser(command);
  parser.option("-o", &output);
  parser.option("--output", &output);
  parser.option("--jobs", &jobsText);
  parser.option("--from", &fromText);
  parser.option("--to", &toText);
  parser.option("--voice-dir", &voiceDir);
  parser.option("--log-level", &levelText);
  parser.flag("--no-cache", &noCache);
  parser.option("--cache-limit", &limitText);
  parser.option("--charset", &charsetText);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 1, 1);
  if (status >= 0) return status;
  long jobs = static_cast<long>(std::max(1u, std::thread::hardware_concurrency()));
  long from = 0, to = INT32_MAX, level = 0;
  if (!jobsText.empty() && !parseInt(jobsText, 1, 64, &jobs)) return usageError(command, "--jobs takes 1 to 64");
  int64_t cacheLimit = CCacheSys::kDefaultLimit;
  if (!limitText.empty() && !parseSize(limitText, &cacheLimit)) {
    return usageError(command, ("--cache-limit " + limitText + ": a size in bytes, such as 500M or 2G").c_str());
  }
  if (!fromText.empty() && !parseInt(fromText, 0, INT32_MAX, &from)) return usageError(command, "--from takes ticks");
  if (!toText.empty() && !parseInt(toText, 0, INT32_MAX, &to)) return usageError(command, "--to takes ticks");
  if (!levelText.empty() && !parseInt(levelText, 0, 6, &level)) return usageError(command, "--log-level takes 0 to 6");
  if (from >= to) return usageError(command, "--from must come before --to");
  log_init(nullptr, levelText.empty() && getenv("tonm_log_level") != nullptr ? nullptr : std::to_string(level).c_str());

  // Open the project as the editor does.
  const std::string& project = args[0];
  CScaleMan scale;
  CNoteMan manager(&scale);
  ctonm2& engine = *manager.engine();
  if (!parseCharset(charsetText, &charset)) return usageError(command, "--charset is utf-8 or shift_jis");
  if (!openProjectFile(manager, project, "render", charset)) return kExitFailure;
  // A project file comes from anyone: the output name it carries is only a
  // name (its last part, ending in .wav), beside the project or in the
  // folder -o names; never a path to follow.
  const size_t slash = project.rfind('/');
  const std::string projectFolder = slash == std::string::npos ? std::string() : project.substr(0, slash + 1);
  struct stat target;
  const bool intoFolder = !output.empty() && stat(output.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
  if (output.empty() || intoFolder) {
    const std::string named = engine.outfile;
    const std::string name = outputFileName(named, project);
    output = (intoFolder ? output + (output.back() == '/' ? "" : "/") : projectFolder) + name;
    if (!named.empty() && named != name) {
      fprintf(stderr, "the project's output file '%s' is taken as the name '%s'\n", named.c_str(), name.c_str());
    }
  }
  const std::string problem = outputProblem(output, {project}, {".wav", ".wave"});
  if (!problem.empty()) {
    fprintf(stderr, "tona render: %s\n", problem.c_str());
    return kExitUsage;
  }
  // Only a WAV file is ever written over: anything else there is not ours.
  const std::string notWave = notAWaveFile(output);
  if (!notWave.empty()) {
    fprintf(stderr, "tona render: %s; nothing written\n", notWave.c_str());
    return kExitFailure;
  }
  if (!loadVoiceBank(manager, project, voiceDir, "render")) return kExitFailure;
  const std::string overBank = bankFileProblem(manager, output);
  if (!overBank.empty()) {
    fprintf(stderr, "tona render: %s\n", overBank.c_str());
    return kExitUsage;
  }
  dropImpossibleNotes(manager);
  engine.preparationNotes();
  engine.makePitchMode2();

  // The notes that start in [from, to).
  int32_t first = -1, last = -1;
  long long start = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    start += engine.notes[i].Delta;
    if (start >= from && start < to) {
      if (first < 0) first = i;
      last = i;
    }
  }
  int missing = 0;
  for (int32_t i = std::max(first, 0); i <= last; ++i) {
    const NoteData& note = engine.notes[i];
    if (!ctonm2::is_r(note.Lyric) && note.VoiceFile == nullptr) {
      if (missing++ == 0) fprintf(stderr, "warning: notes without a voice entry (they stay silent):\n");
      fprintf(stderr, "  note %d '%s' at %s\n", i, note.Lyric, std::to_string(note.NoteNum).c_str());
    }
  }
  if (first < 0) {
    fprintf(stderr, "tona render: no note starts in the range asked\n");
    return kExitFailure;
  }
  warnUnloadableSamples(manager, first, last);

  interruptedEngine = &engine;
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  RenderFileResult result;
  {
    ProgressBar bar("rendering", last - first + 1);
    engine.progressContext = &bar;
    if (!noCache) {
      engine.cacheGet = cacheGet;
      engine.cachePut = cachePut;
    }
    result = renderToWaveFile(engine, first, last, static_cast<int32_t>(jobs), onProgress, output);
    engine.progressContext = nullptr;
  }
  if (!noCache) CCacheSys::trim(cacheLimit);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  interruptedEngine = nullptr;
  switch (result.status) {
    case RenderFileStatus::kWritten:
      break;
    case RenderFileStatus::kNothingSounds:
      fprintf(stderr, "tona render: nothing to render (no sounding note)\n");
      return kExitFailure;
    case RenderFileStatus::kStopped:
      fprintf(stderr, "tona render: stopped; nothing written\n");
      return 130;
    case RenderFileStatus::kNoMemory:
      fprintf(stderr, "tona render: not enough memory for the song's mix\n");
      return kExitFailure;
    case RenderFileStatus::kWriteFailed:
      fprintf(stderr, "tona render: cannot write '%s': %s\n", output.c_str(), strerror(result.error));
      return kExitFailure;
  }
  const double seconds = static_cast<double>(result.samples) / 44100.0;
  fprintf(stderr, "wrote '%s' (%.2f s)\n", output.c_str(), seconds);
  return kExitOk;
}
