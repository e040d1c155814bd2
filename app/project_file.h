// Opening the project a command works on.
#pragma once

#include <string>
#include <vector>

class CNoteMan;

// Why the file at `path` holds no project ("it is a folder", "the file is
// empty", ...), or "" when it may hold one (or cannot be opened at all).
std::string notAProject(const std::string& path);

// Opens the project at `path` as the editor does (the per-user voice
// folder standing for "${DEFAULT}"). False, with one line on stderr
// ("tona COMMAND: not a project: ..." or "cannot open ...: reason"), when
// the file cannot be read or holds no project: a folder, an empty file, a
// binary, or a text with neither a "[#SETTING]" section nor a note section.
// `charset` (optional: "utf-8" or "shift_jis") forces how it is read.
// Values the project gave past their range were brought in: each is
// named on stderr.
bool openProjectFile(CNoteMan& manager, const std::string& path, const char* command,
                     const std::string& charset = std::string());

// "tona COMMAND: 'SOURCE': NOTICE" on stderr for each of the first 20
// notices, then how many more there were.
void printNotices(const char* command, const std::string& source, const std::vector<std::string>& notices);

// Reads a --charset value: "" (unset), "utf-8" or "shift_jis" (case and
// the spellings utf8, sjis, cp932 accepted). False when it is none of them.
bool parseCharset(const std::string& text, std::string* charset);

class ctonm2;

// The section number in the file of every note in the engine, -1 for the
// rest records the reader adds to carry a tempo change before its note.
std::vector<int> sectionNumbers(const ctonm2& engine);
