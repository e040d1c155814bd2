#include "support/cstr.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {
constexpr size_t kFormatCapacity = 16384;
}

cstr::cstr(const char* text) {
  if (text != nullptr) assign(text, strlen(text));
}

cstr::cstr(size_t n) {
  char* block = static_cast<char*>(malloc(n + 1));
  if (block == nullptr) return;
  block[n] = '\0';
  text_ = block;
  length_ = static_cast<uint32_t>(n);
}

cstr::cstr(const cstr& other) {
  if (other.text_ != nullptr) assign(other.text_, other.length_);
}

cstr::cstr(cstr&& other) noexcept
    : text_(std::exchange(other.text_, nullptr)),
      length_(std::exchange(other.length_, 0)) {}

cstr::~cstr() { free(text_); }

bool cstr::assign(const char* text, size_t len) {
  // Copy first: text may point into our own block.
  char* block = static_cast<char*>(malloc(len + 1));
  if (block == nullptr) return false;
  memcpy(block, text, len);
  block[len] = '\0';
  free(text_);
  text_ = block;
  length_ = static_cast<uint32_t>(len);
  return true;
}

bool cstr::append(const char* text, size_t len) {
  char* block = static_cast<char*>(malloc(length_ + len + 1));
  if (block == nullptr) return false;
  if (length_ > 0) memcpy(block, text_, length_);
  memcpy(block + length_, text, len);
  block[length_ + len] = '\0';
  free(text_);
  text_ = block;
  length_ = static_cast<uint32_t>(length_ + len);
  return true;
}

cstr cstr::operator=(const char* text) {
  if (text == nullptr) {
    free(text_);
    text_ = nullptr;
    length_ = 0;
  } else {
    assign(text, strlen(text));
  }
  return *this;
}

cstr cstr::operator=(const cstr& other) {
  if (this != &other) {
    if (other.text_ == nullptr) {
      *this = static_cast<const char*>(nullptr);
    } else {
      assign(other.text_, other.length_);
    }
  }
  return *this;
}

cstr cstr::operator+=(const char* text) {
  if (text != nullptr) append(text, strlen(text));
  return *this;
}

cstr cstr::operator+=(const cstr& other) {
  if (other.text_ != nullptr) append(other.text_, other.length_);
  return *this;
}

cstr cstr::operator+(const cstr& right) const {
  cstr result(*this);
  result += right;
  return result;
}

cstr cstr::operator+(const char* right) const {
  cstr result(*this);
  result += right;
  return result;
}

cstr operator+(const char* left, const cstr& right) {
  cstr result(left);
  result += right;
  return result;
}

bool cstr::operator==(const char* text) const {
  if (text_ == nullptr || text == nullptr) return text_ == nullptr && text == nullptr;
  return strcmp(text_, text) == 0;
}

bool cstr::operator==(const cstr& other) const {
  if (length_ == 0 || other.length_ == 0) return length_ == other.length_;
  return strcmp(text_, other.text_) == 0;
}

void cstr::resize(size_t n) {
  char* block = static_cast<char*>(realloc(text_, n + 1));
  if (block == nullptr) {
    free(text_);
    text_ = nullptr;
    length_ = 0;
    return;
  }
  if (text_ == nullptr) block[0] = '\0';
  block[n] = '\0';
  text_ = block;
  if (length_ > n) length_ = static_cast<uint32_t>(n);
}

cstr cstr::substr(int start, int count) const {
  if (start < 0) start = 0;
  if (text_ == nullptr || static_cast<uint32_t>(start) >= length_) return cstr("");
  size_t rest = length_ - static_cast<uint32_t>(start);
  size_t take = (count >= 0 && static_cast<size_t>(count) < rest) ? static_cast<size_t>(count) : rest;
  cstr result;
  result.assign(text_ + start, take);
  return result;
}

cstr cstr::lastComponentBySeparator(char c) const {
  if (text_ == nullptr) return cstr();
  const char* last = strrchr(text_, c);
  return cstr(last != nullptr ? last + 1 : text_);
}

cstr cstr::removeLastComponentBySeparator(char c) {
  char* last = text_ != nullptr ? strrchr(text_, c) : nullptr;
  if (last == nullptr) {
    *this = static_cast<const char*>(nullptr);
  } else {
    *last = '\0';
    length_ = static_cast<uint32_t>(last - text_);
  }
  return *this;
}

cstr cstr::format(const char* fmt, ...) {
  cstr result(kFormatCapacity);
  if (result.text_ == nullptr) return result;
  va_list args;
  va_start(args, fmt);
  vsnprintf(result.text_, kFormatCapacity + 1, fmt, args);
  va_end(args);
  result.length_ = static_cast<uint32_t>(strlen(result.text_));
  return result;
}
