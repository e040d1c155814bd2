// The voice bank a command sings with.
#pragma once

#include <string>

class CNoteMan;

// Reads the bank named by `option` (when given) or by the project, a
// relative folder taken from the project's folder, into the engine's
// voice set. False, with "tona COMMAND: no voice bank at ..." on stderr,
// when there is none.
bool loadVoiceBank(CNoteMan& manager, const std::string& project, const std::string& option, const char* command);
