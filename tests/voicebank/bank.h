// Voice banks made in a temporary folder for tests.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/pitch.h"

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

// A bank of steady 1.5 s vowels at 220 Hz, one a name ("a", "i"), each
// with its frequency table and the entry "a.wav=a,50,60,-1400,40,10"
// (50 ms offset, 60 consonant, 40 pre-utterance, 10 overlap).
inline void writeAnalysedVowels(const TestBank& bank, const std::vector<std::string>& names) {
  VoiceSignal voice;
  voice.f0 = 220.0;
  voice.seconds = 1.5;
  std::string oto;
  for (const std::string& name : names) {
    voice.writeWave(bank.folder() + name + ".wav");
    generateAnlyzeFiles((bank.folder() + name + ".wav").c_str(), 0);
    oto += name + ".wav=" + name + ",50,60,-1400,40,10\n";
  }
  bank.write("oto.ini", oto);
}
