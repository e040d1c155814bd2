#include "support/textfile.h"
#include "support/regular_file.h"

#include <cstdint>
#include <vector>

bool skipByteOrderMark(FILE* file) {
  if (file == nullptr) return false;
  const long start = ftell(file);
  unsigned char mark[3] = {0, 0, 0};
  if (fread(mark, 1, 3, file) == 3 && mark[0] == 0xEF && mark[1] == 0xBB && mark[2] == 0xBF) return true;
  fseek(file, start < 0 ? 0 : start, SEEK_SET);
  return false;
}

bool looksLikeUtf8(const char* data, size_t length) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  bool high = false;
  for (size_t i = 0; i < length;) {
    const unsigned char lead = p[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    high = true;
    size_t extra;
    uint32_t code;
    if (lead >= 0xC2 && lead <= 0xDF) {
      extra = 1, code = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      extra = 2, code = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      extra = 3, code = lead & 0x07;
    } else {
      return false;
    }
    for (size_t k = 1; k <= extra; ++k) {
      if (i + k >= length || (p[i + k] & 0xC0) != 0x80) return false;
      code = (code << 6) | (p[i + k] & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    if ((extra == 2 && code < 0x800) || (extra == 3 && (code < 0x10000 || code > 0x10FFFF)) ||
        (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return high;
}

bool fileLooksLikeUtf8(const char* path) {
  FILE* file = openRegularFile(path, "rb");
  if (file == nullptr) return false;
  std::vector<char> data;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, file)) > 0;) data.insert(data.end(), buffer, buffer + n);
  fclose(file);
  size_t start = data.size() >= 3 && static_cast<unsigned char>(data[0]) == 0xEF &&
                         static_cast<unsigned char>(data[1]) == 0xBB && static_cast<unsigned char>(data[2]) == 0xBF
                     ? 3
                     : 0;
  return looksLikeUtf8(data.data() + start, data.size() - start);
}
