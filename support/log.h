// A minimal process-wide logger: one stream, one threshold.
//
// Levels: 1 ERR (out of memory), 2 WAR (missing voice data), 3 NOTE
// (progress, notable conditions), 4 INFO (summaries), 5 DBG (resampler
// details), 6 bare progress counters. A message of level L is written when
// a stream is set and L <= errorlevel. Each message gets a local-time
// prefix, with the level's tag for levels 1 to 4; when the threshold is 6
// or more every message is written bare, so that progress lines ending in
// "\r" overwrite each other on a terminal.
//
// There is no lock: messages from render threads may interleave.
#pragma once

#include <cstdint>
#include <cstdio>

extern FILE* f_log;          // null until log_init: nothing is written
extern int32_t errorlevel;   // threshold, 3 by default

// Opens the log. A null path is taken from $tonm_log_path and a null level
// from $tonm_log_level. The stream is standard error, or the named file
// (truncated) when it opens. A level text that does not read as a number
// leaves the threshold unchanged.
void log_init(const char* path, const char* level);
// Closes a log file; logging then goes on to standard error.
void log_end();
void set_loglevel(int32_t level);
// The prefix, then the formatted text as it is (the caller adds "\n").
void log_printf(int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The prefix, then the text and a newline.
void log_write(const char* text, int32_t level);
// The prefix alone: local time, and "[TAG] " for levels 1 to 4.
void printnow(int32_t level);
