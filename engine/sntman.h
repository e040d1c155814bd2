// CSntMan: a project file's character set and place-holders around the
// engine's SNT reader, and the two writers (the 2.0 form, UTF-8 or
// Shift_JIS with LF; the 1.2 form, Shift_JIS with CR LF, lengths only).
// One lives for one read or write.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

class ctonm2;

// Replaces place-holders; each result lives until the next call on the
// same object.
class CReplaceString {
 public:
  // Every non-overlapping `from`, scanned from the left, becomes `to` (null
  // counts as ""). An empty or null text or `from` gives `text` itself.
  const char* replaceStr(const char* text, const char* from, const char* to);
  // "${HOME}" -> $HOME, and back; `text` itself when HOME is unset.
  const char* restoreHome(const char* text);
  const char* replaceHome(const char* text);

 private:
  std::string result_;
};

class CSntMan {
 public:
  // Installs the connective rules in the engine's voice set, when it has
  // one. defaultPath (may be null) stands for "${DEFAULT}" in voice folders.
  CSntMan(ctonm2* engine, const char* defaultPath);

  // read_snt, then: a non-empty time-signature text becomes the
  // "TimeSignatures" extra header; Shift_JIS texts become UTF-8; the
  // place-holders of the voice folder are expanded. Returns read_snt's
  // result.
  int32_t readSnt2(const char* path, char* tsBuffer, int32_t tsSize);
  // Adds "key=value\n" to the extra lines of the setting section (both
  // must be non-empty).
  void addHeader(const char* key, const char* value);
  void setDefaultPath(const char* path);
  // Reads projects in this charset ("utf-8" or "shift_jis") whatever they
  // say; empty: as they say, or by their bytes when they say nothing.
  void setForcedCharset(const std::string& charset) { forcedCharset_ = charset; }
  // Reads `folder` into the engine's voice set and brings its texts to UTF-8.
  int32_t readVoiceset(const char* folder);

  // 1 on success; 0 when the file cannot be created or written.
  int32_t writeSnt1(const char* path);
  int32_t writeSnt2(const char* path);

  // key, then a count-first list's values as "%0.1f" joined by "," (the
  // separator argument is not used: values are always separated by ",").
  static void fprintFloat(FILE* stream, const char* key, const float* list, const char* separator);
  // The same for a count-first byte list, as characters ("" for a NUL).
  static void fprintChar(FILE* stream, const char* key, const uint8_t* list, const char* separator);

 private:
  ctonm2* engine_;
  std::string defaultPath_;
  std::string header_;
  std::string forcedCharset_;
};
