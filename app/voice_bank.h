// The voice bank a command sings with.
#pragma once

#include <string>

class CNoteMan;

// The folder a project's voice folder text names: "%VOICE%NAME" and a
// bare NAME among the user's banks (a bare name beside the project
// first), a Windows path by its last folder, a relative one from the
// project's folder. *fromElsewhere (optional) tells a Windows path. ""
// when none is named (an empty "VoiceDir=" reads as "/").
std::string resolveVoiceBank(const std::string& project, const std::string& named, bool* fromElsewhere);

// Reads the bank named by `option` (when given) or by the project, a
// relative folder taken from the project's folder, into the engine's
// voice set. False, with "tona COMMAND: no voice bank at ..." on stderr,
// when there is none.
bool loadVoiceBank(CNoteMan& manager, const std::string& project, const std::string& option, const char* command);

// Warns, one line per sample, of the samples that notes first..last sing
// and that cannot be loaded (those notes stay silent). Returns how many.
int warnUnloadableSamples(CNoteMan& manager, int first, int last);

// Why `output` must not be written, or "" when it may: it is a sample, a
// frequency table or a spectrum file of the loaded bank (the same file,
// however named).
std::string bankFileProblem(CNoteMan& manager, const std::string& output);

// Notes that cannot be right (a negative length, a note number outside
// 0..127) get one warning line each, naming their section in the file,
// and are left out of the render (made rests). Returns how many.
int dropImpossibleNotes(CNoteMan& manager);
