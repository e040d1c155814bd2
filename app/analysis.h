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
// Makes (with `force`: makes again) the sample's table; with `text` also
// its text dump. Thread safe once the tone table is set up (analyseAll
// does that).
void analyse(SampleJob& job, bool force, bool text);
// Analyses every job on `workers` threads; `done` counts finished jobs and
// `stop` (optional) ends the work after the jobs under way.
void analyseAll(std::vector<SampleJob>& jobs, bool force, bool text, int workers, std::atomic<size_t>* done,
                const std::atomic<bool>* stop = nullptr);
