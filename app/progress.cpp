#include "app/progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

ProgressBar::ProgressBar(const char* label, long total)
    : label_(label), total_(total > 0 ? total : 1), active_(isatty(STDERR_FILENO) != 0) {
  update(0);
}

ProgressBar::~ProgressBar() {
  if (active_) fprintf(stderr, "\r\033[K");
}

void ProgressBar::update(long done) {
  if (!active_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (done > total_) done = total_;
  const int percent = static_cast<int>(100 * done / total_);
  if (percent == lastPercent_) return;
  lastPercent_ = percent;
  constexpr int kWidth = 30;
  const int filled = kWidth * percent / 100;
  fprintf(stderr, "\r%s [%.*s%*s] %3d%% (%ld/%ld)", label_.c_str(), filled, "##############################",
          kWidth - filled, "", percent, done, total_);
  fflush(stderr);
}

std::string clockText(double ms) {
  if (!(ms > 0.0)) ms = 0.0;
  char text[32];
  const long tenths = std::lround(ms / 100.0);
  snprintf(text, sizeof text, "%ld:%02ld.%ld", tenths / 600, tenths / 10 % 60, tenths % 10);
  return text;
}
