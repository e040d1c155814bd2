// Analysing a voice bank's samples: the frequency table of each sample,
// made when missing or out of date, with the reason when it cannot be.
// Shared by tona analyze and the editor's "Analyze bank".
#pragma once

#include <atomic>
#include <string>
#include <vector>

struct SampleJob {
  enum class Outcome { kAnalysed, kUpToDate, kFailed };
  std::string path;
  Outcome outcome = Outcome::kFailed;
  std::string reason;
};

bool isFolder(const std::string& path);
// The samples a bank's tables name, in table order, each once.
std::vector<std::string> bankSamples(const std::string& folder);
// What to make besides the frequency table (".frq").
struct AnalysisOptions {
  bool force = false;     // make the tables again, even up-to-date ones
  bool text = false;      // also the text dump (".frt")
  bool spectrum = false;  // also the spectrum file (".spef")
};
// Makes the sample's tables as asked. Thread safe once the tone table is
// set up (analyseAll does that).
void analyse(SampleJob& job, const AnalysisOptions& options);
// Analyses every job on `workers` threads; `done` counts finished jobs and
// `stop` (optional) ends the work after the jobs under way.
void analyseAll(std::vector<SampleJob>& jobs, const AnalysisOptions& options, int workers, std::atomic<size_t>* done,
                const std::atomic<bool>* stop = nullptr);
