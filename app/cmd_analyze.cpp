// tona analyze PATH... [--force] [--text] [--jobs N]

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/progress.h"
#include "app/subcommands.h"
#include "render/wavefile.h"
#include "voicebank/connective.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

const char kAnalyzeUsage[] =
    "usage: tona analyze PATH... [--force] [--text] [--jobs N]\n"
    "\n"
    "Makes the frequency table (\".frq\") of every sample: PATH is a sample\n"
    "file or a voice bank folder (every sample its oto tables name).\n"
    "  --force   make the tables again, even those that are up to date\n"
    "  --text    also write the text dump (\".frt\")\n"
    "  --jobs N  samples analysed at once (default: the number of cores)\n";

namespace {

enum class Outcome { kAnalysed, kUpToDate, kFailed };

struct Job {
  std::string path;
  Outcome outcome = Outcome::kFailed;
  std::string reason;
};

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The samples a bank's tables name, in table order, each once.
std::vector<std::string> bankSamples(const std::string& folder) {
  cvoiceset voiceset;
  voiceset.read_voiceset(folder.c_str());
  convertVoicesetTexts(&voiceset);
  std::string dir = folder;
  if (dir.back() != '/') dir += '/';
  std::vector<std::string> samples;
  std::set<std::string> seen;
  for (int32_t i = 0; i < voiceset.count(); ++i) {
    const std::string path = dir + voiceset.get_filename(i);
    if (seen.insert(path).second) samples.push_back(path);
  }
  return samples;
}

// Why a sample cannot be analysed, in a few words.
std::string loadFailure(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return strerror(errno);
  const size_t dot = path.rfind('.');
  const std::string extension = dot == std::string::npos ? "" : path.substr(dot);
  if (extension != ".wav" && extension != ".aif" && extension != ".aiff") return "not a .wav, .aif or .aiff file";
  return "not a readable 16-bit WAV or AIFF file";
}

// Why a table just made is not on disk, or "" when it is: a table can be
// computed in memory and still fail to be written, and a sample without a
// voiced frame gets none.
std::string tableNotWritten(const std::string& sample, time_t since) {
  const std::string table = frequencyTablePath(sample.c_str(), "frq");
  struct stat info;
  if (stat(table.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_mtime >= since) return "";
  const size_t slash = table.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : table.substr(0, slash == 0 ? 1 : slash);
  errno = 0;
  if (access(table.c_str(), F_OK) == 0) {
    const int fd = open(table.c_str(), O_WRONLY);
    if (fd < 0) return "cannot write '" + table + "': " + strerror(errno);
    close(fd);
  } else if (access(folder.c_str(), W_OK) != 0) {
    return "cannot write '" + table + "': " + strerror(errno);
  }
  return "no voiced frame (silent?)";  // nothing kept the table from being written
}

void analyse(Job& job, bool force, bool text) {
  double *freq = nullptr, *amp = nullptr;
  double average = 0.0;
  const time_t started = time(nullptr);
  int32_t count = force ? 0 : readFrequenciesList(job.path.c_str(), &freq, &amp, &average, kAnalysisStep);
  if (count > 0) {
    job.outcome = Outcome::kUpToDate;
  } else if (generateAnlyzeFiles(job.path.c_str(), force ? 1 : 0) == 0) {
    job.reason = loadFailure(job.path);
    return;
  } else if (!(job.reason = tableNotWritten(job.path, started)).empty()) {
    return;
  } else {
    count = readFrequenciesList(job.path.c_str(), &freq, &amp, &average, kAnalysisStep);
    if (count == 0) {
      job.reason = "no voiced frame (silent?) or the table cannot be written";
      return;
    }
    job.outcome = Outcome::kAnalysed;
  }
  if (text && writeFrequenciesText(job.path.c_str(), freq, amp, count, average, kAnalysisStep) == 0) {
    job.outcome = Outcome::kFailed;
    job.reason = "cannot write the text table";
  }
  free(freq);
  free(amp);
}

}  // namespace

int runAnalyze(int argc, char** argv) {
  const Command& command = *findCommand("analyze");
  bool force = false, text = false;
  std::string jobsText;
  ArgParser parser(command);
  parser.flag("--force", &force);
  parser.flag("--text", &text);
  parser.option("--jobs", &jobsText);
  std::vector<std::string> paths;
  const int status = parser.parse(argc, argv, &paths, 1, -1);
  if (status >= 0) return status;
  long jobsWanted = static_cast<long>(std::max(1u, std::thread::hardware_concurrency()));
  if (!jobsText.empty() && !parseInt(jobsText, 1, 256, &jobsWanted)) {
    return usageError(command, "--jobs takes a number from 1 to 256");
  }

  std::vector<Job> jobs;
  std::set<std::string> seen;
  int empty = 0;
  for (const std::string& path : paths) {
    const std::vector<std::string> samples = isFolder(path) ? bankSamples(path) : std::vector<std::string>{path};
    if (samples.empty()) {
      fprintf(stderr, "tona analyze: '%s' is no voice bank: it has no oto.ini or oto_ini.txt entries\n", path.c_str());
      ++empty;
    }
    for (const std::string& sample : samples) {
      if (seen.insert(sample).second) jobs.push_back({sample, Outcome::kFailed, ""});
    }
  }

  // The tone table is shared: set it up before the workers start.
  initToneTable(44100, 2048);
  std::atomic<size_t> next{0}, done{0};
  ProgressBar bar("analysing", static_cast<long>(jobs.size()));
  auto work = [&] {
    for (size_t k = next++; k < jobs.size(); k = next++) {
      analyse(jobs[k], force, text);
      bar.update(static_cast<long>(++done));
    }
  };
  const size_t workers = std::min<size_t>(static_cast<size_t>(jobsWanted), std::max<size_t>(jobs.size(), 1));
  std::vector<std::thread> threads;
  for (size_t t = 1; t < workers; ++t) threads.emplace_back(work);
  work();
  for (std::thread& thread : threads) thread.join();

  int analysed = 0, upToDate = 0, failed = 0;
  for (const Job& job : jobs) {
    analysed += job.outcome == Outcome::kAnalysed;
    upToDate += job.outcome == Outcome::kUpToDate;
    failed += job.outcome == Outcome::kFailed;
  }
  fprintf(stderr, "analysed %d, already up to date %d, failed %d\n", analysed, upToDate, failed);
  for (const Job& job : jobs) {
    if (job.outcome == Outcome::kFailed) fprintf(stderr, "  failed: %s: %s\n", job.path.c_str(), job.reason.c_str());
  }
  return failed == 0 && empty == 0 ? kExitOk : kExitFailure;
}
