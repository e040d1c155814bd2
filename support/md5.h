// MD5 message digest (RFC 1321), and a base-62 text form of a digest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class Md5 {
 public:
  Md5();
  void update(const void* data, size_t length);
  // The 16-byte digest; the object is spent afterwards.
  void finish(uint8_t digest[16]);

 private:
  void block(const uint8_t* chunk);
  uint32_t state_[4];
  uint64_t length_ = 0;  // bytes
  uint8_t buffer_[64];
  size_t buffered_ = 0;
};

// The digest as 22 characters of 0-9A-Za-z (most significant first, read
// as a big-endian 128-bit number): stable and unique per digest.
std::string base62(const uint8_t digest[16]);
