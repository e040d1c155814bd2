#include "support/byteorder.h"

#include <cstdint>

void brevert(void* bytes, size_t n) {
  uint8_t* p = static_cast<uint8_t*>(bytes);
  for (size_t i = 0; i < n / 2; ++i) {
    uint8_t tmp = p[i];
    p[i] = p[n - 1 - i];
    p[n - 1 - i] = tmp;
  }
}

long fwritee(const void* data, size_t size, size_t count, FILE* file, bool swap) {
  if (!swap) return static_cast<long>(fwrite(data, size, count, file));
  const uint8_t* item = static_cast<const uint8_t*>(data);
  long whole = 0;
  for (size_t i = 0; i < count; ++i, item += size) {
    bool ok = true;
    for (size_t b = size; b-- > 0;) {
      if (fputc(item[b], file) == EOF) {
        ok = false;
        break;
      }
    }
    if (ok) ++whole;
  }
  return whole;
}

long freade(void* data, size_t size, size_t count, FILE* file, bool swap) {
  if (!swap) return static_cast<long>(fread(data, size, count, file));
  uint8_t* item = static_cast<uint8_t*>(data);
  bool ended = false;
  for (size_t i = 0; i < count && !ended; ++i, item += size) {
    for (size_t b = size; b-- > 0;) {
      int c = fgetc(file);
      if (c == EOF) {
        ended = true;
        break;
      }
      item[b] = static_cast<uint8_t>(c);
    }
  }
  return ended ? -static_cast<long>(count * size) : static_cast<long>(count);
}
