// A progress bar on standard error, drawn only when it is a terminal.
// update() may be called from any thread.
#pragma once

#include <mutex>
#include <string>

class ProgressBar {
 public:
  ProgressBar(const char* label, long total);
  ~ProgressBar();  // clears the bar's line
  void update(long done);
  bool active() const { return active_; }

 private:
  std::mutex mutex_;
  std::string label_;
  long total_;
  int lastPercent_ = -1;
  bool active_;
};

// A time as minutes, seconds and tenths ("1:04.5"); below zero, 0:00.0.
std::string clockText(double ms);
