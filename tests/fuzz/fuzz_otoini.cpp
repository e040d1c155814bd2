// An oto.ini, then lookups against what was read.
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/connective.h"
#include "voicebank/voiceset.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("oto.ini", data, size);
  cvoiceset voiceset;
  voiceset.read_otoini(path.c_str(), "sub/");
  convertVoicesetTexts(&voiceset);
  installConnectiveRules(&voiceset);
  for (const char* lyric : {"a", "\xe3\x81\x8b", "?ka", "", "sub/a"}) {
    voiceset.get_voicedata("\xe3\x81\x8b", lyric, 60);
    voiceset.get_voicedata(nullptr, lyric, 100);
  }
  if (voiceset.count() > 0) voiceset.search_voicedata(voiceset.get_alias(voiceset.count() - 1));
  return 0;
}
