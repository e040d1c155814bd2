#include "support/log.h"

#include <cstdarg>
#include <cstdlib>
#include <ctime>

FILE* f_log = nullptr;
int32_t errorlevel = 3;

namespace {
const char* const kind[] = {"log", "ERR", "WAR", "NOTE", "INFO", "DBG"};
}

void log_init(const char* path, const char* level) {
  if (path == nullptr) path = getenv("tonm_log_path");
  if (level == nullptr) level = getenv("tonm_log_level");
  if (f_log != nullptr && f_log != stderr) fclose(f_log);
  f_log = stderr;
  if (path != nullptr) {
    FILE* file = fopen(path, "w");
    if (file != nullptr) f_log = file;
  }
  if (level != nullptr) {
    int value = 0;
    if (sscanf(level, "%d", &value) == 1) errorlevel = value;
  }
  log_printf(4, "logging level:%ld\n", static_cast<long>(errorlevel));
  if (path != nullptr && f_log != stderr) {
    log_printf(4, "logging to '%s'\n", path);
  } else {
    log_printf(4, "logging to stderr.\n");
  }
}

void log_end() {
  if (f_log != nullptr && f_log != stderr) {
    fclose(f_log);
    f_log = stderr;
  }
  log_printf(4, "logging closed.\n");
}

void set_loglevel(int32_t level) { errorlevel = level; }

void printnow(int32_t level) {
  if (f_log == nullptr || errorlevel > 5) return;
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  fprintf(f_log, "%04d/%02d/%02d %02d:%02d:%02d ", local.tm_year + 1900, local.tm_mon + 1,
          local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  if (level >= 1 && level <= 4) fprintf(f_log, "[%s] ", kind[level]);
}

void log_printf(int32_t level, const char* format, ...) {
  if (f_log == nullptr || level > errorlevel) return;
  printnow(level);
  va_list args;
  va_start(args, format);
  vfprintf(f_log, format, args);
  va_end(args);
}

void log_write(const char* text, int32_t level) {
  if (f_log == nullptr || level > errorlevel) return;
  printnow(level);
  fprintf(f_log, "%s\n", text);
}
