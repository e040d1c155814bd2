// tona recover [-o OUT]
//
// The command-line face of the editor's start-up question: is there a
// project left behind by an editing session that ended abnormally?

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/subcommands.h"
#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

const char kRecoverUsage[] =
    "usage: tona recover [-o OUT]\n"
    "\n"
    "Says whether an editing session left a project behind in the recovery\n"
    "file, and when it was written; prints its path and note count, or with\n"
    "-o copies it to OUT. Exit status 1 when there is none.\n";

int runRecover(int argc, char** argv) {
  const Command& command = *findCommand("recover");
  std::string output;
  ArgParser parser(command);
  parser.option("-o", &output);
  parser.option("--output", &output);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 0, 0);
  if (status >= 0) return status;

  const std::string path = recoveryFilePath();
  struct stat info;
  if (path.empty() || stat(path.c_str(), &info) != 0) {
    printf("no recovery file\n");
    return kExitFailure;
  }
  char when[64] = "";
  strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime(&info.st_mtime));
  CScaleMan scale;
  CNoteMan man(&scale);
  const std::string voices = userFolder(UserFolder::kVoice);
  errno = 0;
  if (man.openSnt(path.c_str(), voices.c_str()) < 0) {
    fprintf(stderr, "tona recover: cannot open '%s': %s\n", path.c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  printf("recovery file: %s\nwritten:       %s\nnotes:         %d\n", path.c_str(), when, man.noteCount());
  if (output.empty()) return kExitOk;
  const std::string problem = outputProblem(output, {path}, {".snt"});
  if (!problem.empty()) {
    fprintf(stderr, "tona recover: %s\n", problem.c_str());
    return kExitUsage;
  }
  // A byte-for-byte copy.
  errno = 0;
  SafeOutput file(output);
  FILE* in = fopen(path.c_str(), "rb");
  FILE* out = file.path().empty() || in == nullptr ? nullptr : fopen(file.path().c_str(), "wb");
  bool copied = out != nullptr;
  char buffer[65536];
  for (size_t n; copied && in != nullptr && (n = fread(buffer, 1, sizeof buffer, in)) > 0;) {
    copied = fwrite(buffer, 1, n, out) == n;
  }
  copied = copied && in != nullptr && !ferror(in);
  if (in != nullptr) fclose(in);
  if (out != nullptr) copied = fclose(out) == 0 && copied;
  if (!copied || !file.commit()) {
    fprintf(stderr, "tona recover: cannot write '%s': %s\n", output.c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  printf("copied to '%s'\n", output.c_str());
  return kExitOk;
}
