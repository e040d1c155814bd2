// A VSQ sequence text through its reader, into an empty note list and into
// one that already holds notes; the first byte picks the phoneme option.
#include <cstdint>
#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midiman.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  CMIDIMan midi;
  midi.setUsePhoneme((data[0] & 1) != 0);
  for (int filled = 0; filled < 2; ++filled) {
    CScaleMan scale;
    CNoteMan man(&scale);
    if (filled) man.insertNotePosition(960, 480, 60, "ID#0001");
    midi.importVSQText(data[0] >> 4, text.c_str(), &man);
  }
  return 0;
}
