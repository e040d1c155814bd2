// The time-signature text, then the edits and walks the ruler makes.
#include <cstdint>
#include <string>
#include <vector>

#include "editing/scaleman.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CScaleMan scale;
  scale.unserializeText(text.c_str());
  std::vector<char> out(static_cast<size_t>(scale.serialize2text(nullptr, 0)));
  scale.serialize2text(out.data(), static_cast<int32_t>(out.size()));
  int32_t entry = 0;
  scale.getMeasureNumber(480, 480 * 64, &entry);
  scale.addTimeSignature(3, 3, 4);
  scale.removeTimeSignature(3);
  scale.getMeasureNumber(16, 5000, &entry);
  return 0;
}
