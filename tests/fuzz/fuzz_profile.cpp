// A voice bank's character.txt and readme.txt: the input is split at its
// first NUL byte (before: character.txt, after: readme.txt).
#include <cstdint>
#include <cstring>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/voiceprofile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* split = static_cast<const uint8_t*>(memchr(data, 0, size));
  const size_t first = split != nullptr ? static_cast<size_t>(split - data) : size;
  scratchFile("character.txt", data, first);
  scratchFile("readme.txt", data + first, size - first);
  CVoiceProfile profile(scratchFolder().c_str());
  profile.profileText();
  profile.readmeText();
  return 0;
}
