#include "support/md5.h"

#include <algorithm>
#include <cstring>

namespace {

// Per-round shifts and the sine-derived constants of RFC 1321.
const uint32_t kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                             5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                             4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                             6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
const uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint32_t rotateLeft(uint32_t x, uint32_t n) { return (x << n) | (x >> (32 - n)); }

}  // namespace

Md5::Md5() : state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476} {}

void Md5::block(const uint8_t* chunk) {
  uint32_t m[16];
  for (int i = 0; i < 16; ++i) {
    m[i] = static_cast<uint32_t>(chunk[4 * i]) | (static_cast<uint32_t>(chunk[4 * i + 1]) << 8) |
           (static_cast<uint32_t>(chunk[4 * i + 2]) << 16) | (static_cast<uint32_t>(chunk[4 * i + 3]) << 24);
  }
  uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
  for (uint32_t i = 0; i < 64; ++i) {
    uint32_t f, g;
    if (i < 16) {
      f = (b & c) | (~b & d);
      g = i;
    } else if (i < 32) {
      f = (d & b) | (~d & c);
      g = (5 * i + 1) % 16;
    } else if (i < 48) {
      f = b ^ c ^ d;
      g = (3 * i + 5) % 16;
    } else {
      f = c ^ (b | ~d);
      g = (7 * i) % 16;
    }
    const uint32_t rotated = rotateLeft(a + f + kSine[i] + m[g], kShift[i]);
    a = d;
    d = c;
    c = b;
    b = b + rotated;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
}

void Md5::update(const void* data, size_t length) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  length_ += length;
  while (length > 0) {
    const size_t take = std::min(length, sizeof buffer_ - buffered_);
    memcpy(buffer_ + buffered_, bytes, take);
    buffered_ += take;
    bytes += take;
    length -= take;
    if (buffered_ == sizeof buffer_) {
      block(buffer_);
      buffered_ = 0;
    }
  }
}

void Md5::finish(uint8_t digest[16]) {
  const uint64_t bits = length_ * 8;
  const uint8_t one = 0x80, zero = 0;
  update(&one, 1);
  while (buffered_ != 56) update(&zero, 1);
  uint8_t size[8];
  for (int i = 0; i < 8; ++i) size[i] = static_cast<uint8_t>(bits >> (8 * i));
  update(size, 8);
  for (int i = 0; i < 4; ++i) {
    for (int k = 0; k < 4; ++k) digest[4 * i + k] = static_cast<uint8_t>(state_[i] >> (8 * k));
  }
}

std::string base62(const uint8_t digest[16]) {
  static const char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  unsigned __int128 value = 0;
  for (int i = 0; i < 16; ++i) value = (value << 8) | digest[i];
  std::string text(22, '0');
  for (int i = 21; i >= 0; --i) {
    text[static_cast<size_t>(i)] = kDigits[static_cast<int>(value % 62)];
    value /= 62;
  }
  return text;
}
