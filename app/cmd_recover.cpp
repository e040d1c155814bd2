// tona recover [N] [-o OUT]
//
// The command-line face of the editor's start-up question: is there a
// project left behind by an editing session that ended abnormally?
// Each copy such a session left is listed.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "editing/recovery.h"
#include "support/regular_file.h"
#include "support/safe_output.h"

const char kRecoverUsage[] =
    "usage: tona recover [N] [-o OUT]\n"
    "\n"
    "Lists the projects that editing sessions which ended abnormally left\n"
    "behind in the recovery folder, newest first and numbered from 1: the\n"
    "copy's path, the project's own path and name, when it was written and\n"
    "its note count. With -o, copies one to OUT (the only one, or number N).\n"
    "Exit status 1 when there is none.\n";

namespace {

// A byte-for-byte copy of `from` at `output`, through a temporary file.
bool copyFile(const std::string& from, const std::string& output) {
  errno = 0;
  SafeOutput file(output);
  FILE* in = openRegularFile(from.c_str(), "rb");
  FILE* out = file.path().empty() || in == nullptr ? nullptr : fopen(file.path().c_str(), "wb");
  bool copied = out != nullptr;
  char buffer[65536];
  for (size_t n; copied && in != nullptr && (n = fread(buffer, 1, sizeof buffer, in)) > 0;) {
    copied = fwrite(buffer, 1, n, out) == n;
  }
  copied = copied && in != nullptr && !ferror(in);
  if (in != nullptr) fclose(in);
  if (out != nullptr) copied = fclose(out) == 0 && copied;
  return copied && file.commit();
}

}  // namespace

int runRecover(int argc, char** argv) {
  const Command& command = *findCommand("recover");
  std::string output;
  ArgParser parser(command);
  parser.option("-o", &output);
  parser.option("--output", &output);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 0, 1);
  if (status >= 0) return status;

  // A copy that holds no project is named and left alone.
  std::vector<RecoveryCopy> copies;
  for (const RecoveryCopy& copy : findRecoveryCopies()) {
    const std::string reason = notAProject(copy.file);
    if (reason.empty()) {
      copies.push_back(copy);
    } else {
      fprintf(stderr, "tona recover: '%s' is no project (%s); left alone\n", copy.file.c_str(), reason.c_str());
    }
  }
  if (copies.empty()) {
    printf("no recovery file\n");
    return kExitFailure;
  }
  long chosen = 0;
  if (!args.empty() && !parseInt(args[0], 1, static_cast<long>(copies.size()), &chosen)) {
    fprintf(stderr, "tona recover: N is a number from 1 to %zu, as listed\n", copies.size());
    return kExitUsage;
  }
  for (size_t k = 0; k < copies.size(); ++k) {
    const RecoveryCopy& copy = copies[k];
    if (chosen != 0 && static_cast<long>(k) + 1 != chosen) continue;
    char when[64] = "";
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime(&copy.written));
    if (copies.size() > 1) printf("%s%zu.\n", k > 0 && chosen == 0 ? "\n" : "", k + 1);
    printf("recovery file: %s\nproject:       %s\nname:          %s\nwritten:       %s\nnotes:         %d\n",
           copy.file.c_str(), copy.projectPath.empty() ? "(never saved)" : copy.projectPath.c_str(),
           copy.projectName.empty() ? "(none)" : copy.projectName.c_str(), when, copy.noteCount);
  }
  if (output.empty()) return kExitOk;
  if (copies.size() > 1 && chosen == 0) {
    fprintf(stderr, "tona recover: %zu recovery files: say which to copy (tona recover N -o OUT)\n", copies.size());
    return kExitUsage;
  }
  const std::string& from = copies[chosen != 0 ? static_cast<size_t>(chosen - 1) : 0].file;
  const std::string problem = outputProblem(output, {from}, {".snt"});
  if (!problem.empty()) {
    fprintf(stderr, "tona recover: %s\n", problem.c_str());
    return kExitUsage;
  }
  if (!copyFile(from, output)) {
    fprintf(stderr, "tona recover: cannot write '%s': %s\n", output.c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  printf("copied to '%s'\n", output.c_str());
  return kExitOk;
}
