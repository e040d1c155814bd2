// Opening the project a command works on.
#pragma once

#include <string>

class CNoteMan;

// Opens the project at `path` as the editor does (the per-user voice
// folder standing for "${DEFAULT}"). False, with one line on stderr
// ("tona COMMAND: not a project: ..." or "cannot open ...: reason"), when
// the file cannot be read or holds no project: a folder, an empty file, a
// binary, or a text with neither a "[#SETTING]" section nor a note section.
bool openProjectFile(CNoteMan& manager, const std::string& path, const char* command);
