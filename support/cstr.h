// cstr: an owned, NUL-terminated byte string with a cached length.
//
// The text may be null (the "null string"); a null string has length 0.
// Allocation failures never throw: constructors give the null string and
// mutators keep the old value (resize gives the null string).
#pragma once

#include <cstddef>
#include <cstdint>

class cstr {
 public:
  cstr() = default;
  cstr(const char* text);  // NOLINT: implicit like a text literal
  // Allocates n + 1 bytes, length n, terminated at n; contents undefined.
  explicit cstr(size_t n);
  cstr(const cstr& other);
  cstr(cstr&& other) noexcept;
  ~cstr();

  // Assignment and appending return a copy of the result.
  cstr operator=(const char* text);
  cstr operator=(const cstr& other);
  cstr operator+=(const char* text);
  cstr operator+=(const cstr& other);

  cstr operator+(const cstr& right) const;
  cstr operator+(const char* right) const;
  friend cstr operator+(const char* left, const cstr& right);

  // Both null, or both non-null and equal by strcmp.
  bool operator==(const char* text) const;
  // A zero length equals only a zero length (null and empty alike).
  bool operator==(const cstr& other) const;
  bool operator!=(const char* text) const { return !(*this == text); }
  bool operator!=(const cstr& other) const { return !(*this == other); }

  // Reallocates to n + 1 bytes and terminates at n; the length shrinks to
  // n when it was longer. On failure the string becomes null.
  void resize(size_t n);
  // A negative start counts as 0; a start at or past the end gives "";
  // a count of 0 or more that is shorter than the rest cuts the result.
  cstr substr(int start, int count) const;
  // What follows the last c, or the whole text when c does not occur.
  cstr lastComponentBySeparator(char c) const;
  // Cuts the text at the last c (removing it); without c the string
  // becomes null. Returns a copy of the result.
  cstr removeLastComponentBySeparator(char c);
  // Printed with fmt; output past 16384 bytes is cut.
  static cstr format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

  const char* c_str() const { return text_; }
  char* data() { return text_; }
  uint32_t length() const { return length_; }
  bool isNull() const { return text_ == nullptr; }

 private:
  bool assign(const char* text, size_t len);
  bool append(const char* text, size_t len);

  char* text_ = nullptr;
  uint32_t length_ = 0;
};
