// CMultiByte: text conversion between Shift_JIS (older files), UTF-8 (the
// program's own texts) and UTF-16 little-endian, through iconv.
//
// An object owns two result buffers, one for byte texts and one for 16-bit
// texts. A returned pointer stays valid until the next conversion with a
// result of the same kind on the same object, or until the object goes.
// Conversion never fails loudly: the result is what was converted before
// the first invalid or incomplete sequence, or before the output capacity
// ran out. A null input gives null; an empty input gives a constant empty
// text (sjisToWchar gives null). A failed buffer growth gives null.
#pragma once

#include <cstddef>
#include <cstdint>

// Shift_JIS as the files users have were written: the Windows variant
// (byte 0x5C is a backslash; 0x8160 and its neighbours are the characters
// Windows users typed). glibc calls it CP932.
constexpr const char kShiftJis[] = "CP932";

class CMultiByte {
 public:
  typedef uint16_t wchar;

  CMultiByte() = default;
  CMultiByte(const CMultiByte&) = delete;
  CMultiByte& operator=(const CMultiByte&) = delete;
  ~CMultiByte();

  // Output capacities in bytes, by input length in bytes (or in 16-bit
  // units): SJIS from UTF-8 1x, UTF-8 from SJIS 3x (a half-width katakana
  // takes one byte in Shift_JIS and three in UTF-8), UTF-8 from UTF-16 4x,
  // SJIS from UTF-16 2x, UTF-16 from either 4x.
  char* utf8ToSjis(const char* text);
  char* sjisToUtf8(const char* text);
  char* wcharToUtf8(const wchar* text);
  char* wcharToSjis(const wchar* text);
  wchar* utf8ToWchar(const char* text);
  wchar* sjisToWchar(const char* text);

  // The UTF-8 form of a Shift_JIS text when all of it converts; otherwise
  // `text` itself, unchanged (a text that cannot be converted is kept as
  // it is). Null for null.
  const char* sjisToUtf8OrSame(const char* text);

  // Converts in[0..inLength) from `from` to `to` (iconv names) into out,
  // at most outCapacity bytes, then writes one zero byte where the output
  // stopped (out must have room for it). Returns the input bytes left
  // unconverted: 0 when everything was converted.
  static size_t convert(const char* in, size_t inLength, char* out, size_t outCapacity,
                        const char* from, const char* to);

 private:
  static size_t convert(const char* in, size_t inLength, char* out, size_t outCapacity,
                        const char* from, const char* to, size_t* written);
  char* toBytes(const char* in, size_t inLength, size_t capacity, const char* from,
                const char* to, bool wideInput);
  wchar* toWide(const char* in, size_t inLength, size_t capacity, const char* from);
  bool grow(void** buffer, size_t* size, size_t needed);

  [[maybe_unused]] uint32_t reserved_ = 0;
  wchar* wide_ = nullptr;
  size_t wideSize_ = 0;
  char* bytes_ = nullptr;
  size_t bytesSize_ = 0;
};
