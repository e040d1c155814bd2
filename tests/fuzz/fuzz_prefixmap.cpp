#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/connective.h"
#include "voicebank/voiceset.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("prefix.map", data, size);
  cvoiceset voiceset;
  voiceset.read_prefixmap(path.c_str());
  convertVoicesetTexts(&voiceset);
  char name[256];
  for (int note = 0; note < 128; note += 7) voiceset.getmodifyname("a", note, name, sizeof name);
  voiceset.write_prefixmap((scratchFolder() + "written.map").c_str(), voiceset.prefixMap[0].name);
  return 0;
}
