#include "support/md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {
std::string hex(const std::string& message, size_t pieces = 1) {
  Md5 md5;
  const size_t step = message.size() / pieces + 1;
  for (size_t at = 0; at < message.size(); at += step) md5.update(message.data() + at, std::min(step, message.size() - at));
  uint8_t digest[16];
  md5.finish(digest);
  std::string text;
  char byte[3];
  for (uint8_t b : digest) {
    snprintf(byte, sizeof byte, "%02x", b);
    text += byte;
  }
  return text;
}
}  // namespace

TEST(Md5, TestSuiteOfTheRfc) {
  EXPECT_EQ(hex(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(hex("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(hex("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(hex("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  const std::string digits =
      "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
  EXPECT_EQ(hex(digits), "57edf4a22be3c955ac49da2e2107b67a");
  EXPECT_EQ(hex(digits, 7), "57edf4a22be3c955ac49da2e2107b67a");  // fed in pieces
}

TEST(Md5, Base62IsFixedWidthAndDistinct) {
  uint8_t zero[16] = {0};
  EXPECT_EQ(base62(zero), std::string(22, '0'));
  uint8_t one[16] = {0};
  one[15] = 61;
  EXPECT_EQ(base62(one), std::string(21, '0') + "z");
  uint8_t all[16];
  for (uint8_t& b : all) b = 0xFF;
  EXPECT_EQ(base62(all), "7n42DGM5Tflk9n8mt7Fhc7");  // 2^128 - 1
}
