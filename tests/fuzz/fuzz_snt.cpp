// A project file through the reader with its text conversions: the first
// byte picks the charset line put in front (none: Shift_JIS, or UTF-8).
#include <cstdint>
#include <string>

#include "editing/scaleman.h"
#include "engine/ctonm2.h"
#include "engine/sntman.h"
#include "tests/fuzz/fuzz_util.h"
#include "voicebank/voiceset.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string head = (data[0] & 1) ? "[#VERSION]\nCharset=UTF-8\n" : "";
  std::string text = head + std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string path = scratchFile("project.snt", reinterpret_cast<const uint8_t*>(text.data()), text.size());
  ctonm2 engine;
  cvoiceset voiceset;
  engine.voiceset = &voiceset;
  CSntMan manager(&engine, "/default");
  char timeSignatures[1024];
  if (manager.readSnt2(path.c_str(), timeSignatures, sizeof timeSignatures) > 0) {
    CScaleMan scale;
    scale.unserializeText(timeSignatures);
    // What was read must write out and read back without harm.
    const std::string out = scratchFolder() + "out.snt";
    manager.writeSnt2(out.c_str());
    manager.writeSnt1(out.c_str());
    engine.makePitchMode2();
  }
  return 0;
}
