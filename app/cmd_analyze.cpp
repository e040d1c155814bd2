// tona analyze PATH... [--force] [--text] [--spectrum] [--jobs N]

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/analysis.h"
#include "app/args.h"
#include "app/command.h"
#include "app/progress.h"
#include "app/subcommands.h"

const char kAnalyzeUsage[] =
    "usage: tona analyze PATH... [--force] [--text] [--spectrum] [--jobs N]\n"
    "\n"
    "Makes the frequency table (\".frq\") of every sample: PATH is a sample\n"
    "file or a voice bank folder (every sample its oto tables name).\n"
    "  --force   make the tables again, even those that are up to date\n"
    "  --text    also write the text dump (\".frt\")\n"
    "  --spectrum  also write the spectrum file (\".spef\") the formant\n"
    "            correction reads (made on first use otherwise)\n"
    "  --jobs N  samples analysed at once (default: the number of cores)\n";

int runAnalyze(int argc, char** argv) {
  const Command& command = *findCommand("analyze");
  AnalysisOptions options;
  std::string jobsText;
  ArgParser parser(command);
  parser.flag("--force", &options.force);
  parser.flag("--text", &options.text);
  parser.flag("--spectrum", &options.spectrum);
  parser.option("--jobs", &jobsText);
  std::vector<std::string> paths;
  const int status = parser.parse(argc, argv, &paths, 1, -1);
  if (status >= 0) return status;
  long jobsWanted = static_cast<long>(std::max(1u, std::thread::hardware_concurrency()));
  if (!jobsText.empty() && !parseInt(jobsText, 1, 256, &jobsWanted)) {
    return usageError(command, "--jobs takes a number from 1 to 256");
  }

  std::vector<SampleJob> jobs;
  std::set<std::string> seen;
  int empty = 0;
  for (const std::string& path : paths) {
    const std::vector<std::string> samples = isFolder(path) ? bankSamples(path) : std::vector<std::string>{path};
    if (samples.empty()) {
      fprintf(stderr, "tona analyze: '%s' is no voice bank: it has no oto.ini or oto_ini.txt entries\n", path.c_str());
      ++empty;
    }
    for (const std::string& sample : samples) {
      if (seen.insert(sample).second) jobs.push_back({sample, SampleJob::Outcome::kFailed, ""});
    }
  }

  std::atomic<size_t> done{0};
  {
    ProgressBar bar("analysing", static_cast<long>(jobs.size()));
    std::atomic<bool> finished{false};
    std::thread watcher([&] {
      while (!finished) {
        bar.update(static_cast<long>(done.load()));
        usleep(50000);
      }
      bar.update(static_cast<long>(done.load()));
    });
    analyseAll(jobs, options, static_cast<int>(jobsWanted), &done);
    finished = true;
    watcher.join();
  }

  int analysed = 0, upToDate = 0, failed = 0;
  for (const SampleJob& job : jobs) {
    analysed += job.outcome == SampleJob::Outcome::kAnalysed;
    upToDate += job.outcome == SampleJob::Outcome::kUpToDate;
    failed += job.outcome == SampleJob::Outcome::kFailed;
  }
  fprintf(stderr, "analysed %d, already up to date %d, failed %d\n", analysed, upToDate, failed);
  for (const SampleJob& job : jobs) {
    if (job.outcome == SampleJob::Outcome::kFailed) fprintf(stderr, "  failed: %s: %s\n", job.path.c_str(), job.reason.c_str());
  }
  return failed == 0 && empty == 0 ? kExitOk : kExitFailure;
}
