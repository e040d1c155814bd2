#include "app/analysis.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <thread>

#include "voicebank/connective.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

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

namespace {

// Why a sample cannot be analysed, in a few words.
std::string loadFailure(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return strerror(errno);
  const size_t dot = path.rfind('.');
  const std::string extension = dot == std::string::npos ? "" : path.substr(dot);
  if (extension != ".wav" && extension != ".aif" && extension != ".aiff") return "not a .wav, .aif or .aiff file";
  return "not a readable WAV (PCM or floating point) or 16-bit AIFF file";
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

}  // namespace

void analyse(SampleJob& job, const AnalysisOptions& options) {
  const bool force = options.force, text = options.text;
  double *freq = nullptr, *amp = nullptr;
  double average = 0.0;
  const time_t started = time(nullptr);
  int32_t count = force ? 0 : readFrequenciesList(job.path.c_str(), &freq, &amp, &average, kAnalysisStep);
  if (count > 0) {
    job.outcome = SampleJob::Outcome::kUpToDate;
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
    job.outcome = SampleJob::Outcome::kAnalysed;
  }
  if (text && writeFrequenciesText(job.path.c_str(), freq, amp, count, average, kAnalysisStep) == 0) {
    job.outcome = SampleJob::Outcome::kFailed;
    job.reason = "cannot write the text table";
  }
  if (options.spectrum && job.outcome != SampleJob::Outcome::kFailed) {
    const std::string spef = spectrumFilePath(job.path.c_str());
    const time_t before = time(nullptr);
    generateAnlyzeFiles(job.path.c_str(), 2);
    struct stat info;
    if (stat(spef.c_str(), &info) != 0 || info.st_mtime < before) {
      job.outcome = SampleJob::Outcome::kFailed;
      job.reason = "cannot write '" + spef + "': " + strerror(errno != 0 ? errno : EIO);
    } else if (job.outcome == SampleJob::Outcome::kUpToDate) {
      job.outcome = SampleJob::Outcome::kAnalysed;
    }
  }
  free(freq);
  free(amp);
}

void analyseAll(std::vector<SampleJob>& jobs, const AnalysisOptions& options, int workers, std::atomic<size_t>* done,
                const std::atomic<bool>* stop) {
  // The tone table is shared: set it up before the workers start.
  initToneTable(44100, 2048);
  std::atomic<size_t> next{0};
  auto work = [&] {
    for (size_t k = next++; k < jobs.size() && (stop == nullptr || !stop->load()); k = next++) {
      analyse(jobs[k], options);
      ++*done;
    }
  };
  const size_t count = std::min<size_t>(static_cast<size_t>(std::max(workers, 1)), std::max<size_t>(jobs.size(), 1));
  std::vector<std::thread> threads;
  for (size_t t = 1; t < count; ++t) threads.emplace_back(work);
  work();
  for (std::thread& thread : threads) thread.join();
}
