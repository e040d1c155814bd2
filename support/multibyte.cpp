#include "support/multibyte.h"

#include <iconv.h>

#include <cstdlib>
#include <cstring>

namespace {

const char kEmpty[1] = "";
const CMultiByte::wchar kEmptyWide[1] = {0};

size_t wideLength(const CMultiByte::wchar* text) {
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

}  // namespace

CMultiByte::~CMultiByte() {
  free(wide_);
  free(bytes_);
}

size_t CMultiByte::convert(const char* in, size_t inLength, char* out, size_t outCapacity,
                           const char* from, const char* to) {
  size_t written = 0;
  return convert(in, inLength, out, outCapacity, from, to, &written);
}

size_t CMultiByte::convert(const char* in, size_t inLength, char* out, size_t outCapacity,
                           const char* from, const char* to, size_t* written) {
  *written = 0;
  iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) {
    out[0] = '\0';
    return inLength;
  }
  char* inPtr = const_cast<char*>(in);
  size_t inLeft = inLength;
  char* outPtr = out;
  size_t outLeft = outCapacity;
  iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
  iconv_close(cd);
  *outPtr = '\0';
  *written = outCapacity - outLeft;
  return inLeft;
}

bool CMultiByte::grow(void** buffer, size_t* size, size_t needed) {
  if (*size >= needed) return true;
  void* grown = realloc(*buffer, needed);
  if (grown == nullptr) return false;
  *buffer = grown;
  *size = needed;
  return true;
}

char* CMultiByte::toBytes(const char* in, size_t inLength, size_t capacity, const char* from,
                          const char* to, bool wideInput) {
  void* buffer = bytes_;
  if (!grow(&buffer, &bytesSize_, capacity + 1)) return nullptr;
  bytes_ = static_cast<char*>(buffer);
  size_t written = 0;
  convert(in, inLength, bytes_, capacity, from, to, &written);
  if (wideInput) bytes_[capacity] = '\0';
  return bytes_;
}

CMultiByte::wchar* CMultiByte::toWide(const char* in, size_t inLength, size_t capacity,
                                      const char* from) {
  void* buffer = wide_;
  if (!grow(&buffer, &wideSize_, capacity + 2)) return nullptr;
  wide_ = static_cast<wchar*>(buffer);
  char* out = reinterpret_cast<char*>(wide_);
  size_t written = 0;
  convert(in, inLength, out, capacity, from, "UCS-2LE", &written);
  // A whole zero unit where the output stopped and at the end of the capacity.
  out[written] = '\0';
  out[written + 1] = '\0';
  out[capacity] = '\0';
  out[capacity + 1] = '\0';
  return wide_;
}

char* CMultiByte::utf8ToSjis(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text);
  if (n == 0) return const_cast<char*>(kEmpty);
  return toBytes(text, n, n, "UTF8", kShiftJis, false);
}

char* CMultiByte::sjisToUtf8(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text);
  if (n == 0) return const_cast<char*>(kEmpty);
  return toBytes(text, n, 3 * n, kShiftJis, "UTF8", false);
}

char* CMultiByte::wcharToUtf8(const wchar* text) {
  if (text == nullptr) return nullptr;
  size_t units = wideLength(text);
  if (units == 0) return const_cast<char*>(kEmpty);
  return toBytes(reinterpret_cast<const char*>(text), 2 * units, 4 * units, "UCS-2LE", "UTF8", true);
}

char* CMultiByte::wcharToSjis(const wchar* text) {
  if (text == nullptr) return nullptr;
  size_t units = wideLength(text);
  if (units == 0) return const_cast<char*>(kEmpty);
  return toBytes(reinterpret_cast<const char*>(text), 2 * units, 2 * units, "UCS-2LE", kShiftJis, true);
}

const char* CMultiByte::sjisToUtf8OrSame(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text);
  if (n == 0) return text;
  void* buffer = bytes_;
  if (!grow(&buffer, &bytesSize_, 3 * n + 1)) return text;
  bytes_ = static_cast<char*>(buffer);
  size_t written = 0;
  if (convert(text, n, bytes_, 3 * n, kShiftJis, "UTF8", &written) != 0) return text;
  return bytes_;
}

CMultiByte::wchar* CMultiByte::utf8ToWchar(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text);
  if (n == 0) return const_cast<wchar*>(kEmptyWide);
  return toWide(text, n, 4 * n, "UTF8");
}

CMultiByte::wchar* CMultiByte::sjisToWchar(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text);
  if (n == 0) return nullptr;
  return toWide(text, n, 4 * n, kShiftJis);
}
