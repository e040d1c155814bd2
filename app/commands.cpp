#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "app/command.h"
#include "app/docs.h"
#include "app/subcommands.h"

namespace {

const char kVersion[] = "tona " TONA_VERSION "\n";

int runHelp(int argc, char** argv);

}  // namespace

const Command kCommands[] = {
    {"help", "show the help of a command",
     "usage: tona help [COMMAND | --man | --completion]\n"
     "\n"
     "Shows what COMMAND does and its options, or lists the commands.\n"
     "--man prints the manual page, --completion the bash completion.\n",
     runHelp},
    {"render", "render a project to a WAV file", kRenderUsage, runRender},
    {"play", "play a project through the sound card while it renders", kPlayUsage, runPlay},
    {"info", "show a project's settings and notes", kInfoUsage, runInfo},
    {"edit", "apply editing operations to a project", kEditUsage, runEdit},
    {"recover", "list or copy the projects editing sessions left behind", kRecoverUsage, runRecover},
    {"convert", "write a project in the 1.2 or 2.0 form", kConvertUsage, runConvert},
    {"cache", "show or empty the render cache", kCacheUsage, runCache},
    {"import", "make a project of a MIDI file's notes and lyrics", kImportUsage, runImport},
    {"export", "write a project's notes as a MIDI file", kExportUsage, runExport},
    {"analyze", "make the frequency tables of samples or voice banks", kAnalyzeUsage, runAnalyze},
    {"resample", "render one note from a voice sample", kResampleUsage, runResample},
    {"voicebank", "show a voice bank, or the entry a lyric sings", kVoicebankUsage, runVoicebank},
    {nullptr, nullptr, nullptr, nullptr},
};

namespace {

void printUsage(FILE* out) {
  fputs("usage: tona [--help] [--version] COMMAND [ARGS...]\n"
        "\n"
        "TONA renders singing from a project of notes and a voice bank.\n"
        "\n"
        "Commands:\n",
        out);
  for (const Command* command = kCommands; command->name != nullptr; ++command) {
    fprintf(out, "  %-12s %s\n", command->name, command->summary);
  }
  fputs("\nRun 'tona help COMMAND' for the options of one command.\n", out);
}

int runHelp(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stdout);
    return kExitOk;
  }
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    fputs(kCommands[0].usage, stdout);
    return kExitOk;
  }
  if (strcmp(argv[1], "--man") == 0) {
    writeManPage(stdout);
    return kExitOk;
  }
  if (strcmp(argv[1], "--completion") == 0) {
    writeBashCompletion(stdout);
    return kExitOk;
  }
  const Command* command = findCommand(argv[1]);
  if (command == nullptr || argc > 2) {
    fprintf(stderr, "tona: unknown command '%s'\n", argv[1]);
    printUsage(stderr);
    return kExitUsage;
  }
  fputs(command->usage, stdout);
  return kExitOk;
}

}  // namespace

const Command* findCommand(const char* name) {
  for (const Command* command = kCommands; command->name != nullptr; ++command) {
    if (strcmp(command->name, name) == 0) return command;
  }
  return nullptr;
}

int usageError(const Command& command, const char* message) {
  fprintf(stderr, "tona %s: %s\n", command.name, message);
  fputs(command.usage, stderr);
  return kExitUsage;
}

int tonaMain(int argc, char** argv) {
  // A write past the file size limit fails with EFBIG and is reported as
  // any other write error, instead of ending the process without a word.
  signal(SIGXFSZ, SIG_IGN);
  if (argc < 2) {
    fputs("tona: no command given\n", stderr);
    printUsage(stderr);
    return kExitUsage;
  }
  const char* first = argv[1];
  if (strcmp(first, "--help") == 0 || strcmp(first, "-h") == 0) {
    printUsage(stdout);
    return kExitOk;
  }
  if (strcmp(first, "--version") == 0) {
    fputs(kVersion, stdout);
    return kExitOk;
  }
  const Command* command = findCommand(first);
  if (command == nullptr) {
    if (first[0] == '-') {
      fprintf(stderr, "tona: unknown option '%s'\n", first);
    } else {
      fprintf(stderr, "tona: unknown command '%s'\n", first);
    }
    printUsage(stderr);
    return kExitUsage;
  }
  const int status = command->run(argc - 1, argv + 1);
  // What was printed must have arrived (a full disk, a closed pipe).
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "tona %s: cannot write standard output: %s\n", first, strerror(errno != 0 ? errno : EIO));
    return status == kExitOk ? kExitFailure : status;
  }
  return status;
}
