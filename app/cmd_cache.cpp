// tona cache info|clean

#include <cstdio>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/subcommands.h"
#include "render/cache.h"

const char kCacheUsage[] =
    "usage: tona cache info|clean\n"
    "\n"
    "The render cache keeps each rendered note, so that notes that did not\n"
    "change are not rendered again. 'info' shows where it is and its size;\n"
    "'clean' removes its files (its own name form only, never through a link).\n"
    "'tona render --cache-limit' bounds it.\n";

int runCache(int argc, char** argv) {
  const Command& command = *findCommand("cache");
  ArgParser parser(command);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 1, 1);
  if (status >= 0) return status;
  int64_t files = 0, bytes = 0;
  CCacheSys::usage(&files, &bytes);
  if (args[0] == "info") {
    printf("folder: %s\nfiles:  %lld\nsize:   %.1f MB\n", CCacheSys::folder().c_str(), static_cast<long long>(files),
           bytes / 1e6);
    return kExitOk;
  }
  if (args[0] == "clean") {
    CCacheSys::trim(0);
    int64_t left = 0;
    CCacheSys::usage(&left, nullptr);
    printf("removed %lld files (%.1f MB)\n", static_cast<long long>(files - left), bytes / 1e6);
    if (left > 0) {
      fprintf(stderr, "tona cache: %lld files could not be removed\n", static_cast<long long>(left));
      return kExitFailure;
    }
    return kExitOk;
  }
  return usageError(command, ("unknown action '" + args[0] + "' (info or clean)").c_str());
}
