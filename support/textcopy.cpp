#include "support/textcopy.h"

#include <cstring>

char* strcpy_n(char* dst, const char* src, int capacity) {
  if (dst == nullptr || src == nullptr || capacity < 1) return dst;
  size_t room = static_cast<size_t>(capacity) - 1;
  size_t len = strnlen(src, room);
  memmove(dst, src, len);
  dst[len] = '\0';
  return dst;
}

char* strcat_n(char* dst, const char* src, int capacity) {
  if (dst == nullptr || src == nullptr || capacity < 1) return dst;
  size_t used = strnlen(dst, static_cast<size_t>(capacity));
  if (used >= static_cast<size_t>(capacity)) return dst;
  strcpy_n(dst + used, src, capacity - static_cast<int>(used));
  return dst;
}

char* strcpy_utf8_n(char* dst, const char* src, int capacity) {
  if (dst == nullptr || src == nullptr || capacity < 1) return dst;
  size_t room = static_cast<size_t>(capacity) - 1;
  size_t len = strnlen(src, room);
  if (src[len] != '\0') {
    // Cut: step back over continuation bytes to the start of a character.
    while (len > 0 && (static_cast<unsigned char>(src[len]) & 0xC0) == 0x80) --len;
  }
  memmove(dst, src, len);
  dst[len] = '\0';
  return dst;
}
