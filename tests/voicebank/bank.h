// Voice banks made in a temporary folder for tests.
#pragma once

#include <sys/stat.h>

#include <string>

#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"

class TestBank {
 public:
  const std::string& path() const { return dir_.path(); }
  std::string folder() const { return dir_.path() + "/"; }
  // Writes a file below the bank, making its subfolder when needed.
  void write(const std::string& relative, const std::string& contents) const {
    const size_t slash = relative.rfind('/');
    if (slash != std::string::npos) mkdir((dir_.path() + "/" + relative.substr(0, slash)).c_str(), 0777);
    writeFile(dir_.path() + "/" + relative, contents);
  }
  void makeFolder(const std::string& relative) const { mkdir((dir_.path() + "/" + relative).c_str(), 0777); }

 private:
  TempDir dir_;
};

// A bank that sings "a": a steady vowel of `seconds` and its entry (the
// end blank is given by the entry, negative: from the offset).
inline void writeVowelBank(const TestBank& bank, double seconds, const std::string& entries) {
  VoiceSignal voice;
  voice.seconds = seconds;
  voice.writeWave(bank.folder() + "a.wav");
  bank.write("oto.ini", entries);
}
