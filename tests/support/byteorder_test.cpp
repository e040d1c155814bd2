#include "support/byteorder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/testutil.h"

TEST(ByteOrder, BrevertReversesInPlace) {
  uint8_t bytes[5] = {1, 2, 3, 4, 5};
  brevert(bytes, 5);
  EXPECT_EQ(std::string(bytes, bytes + 5), std::string("\x05\x04\x03\x02\x01", 5));
  brevert(bytes, 0);
  EXPECT_EQ(bytes[0], 5);
}

TEST(ByteOrder, SwappedWriteAndReadOfBigEndianItems) {
  TempDir dir;
  std::string path = dir.file("be.bin");
  FILE* out = fopen(path.c_str(), "wb");
  const uint32_t words[2] = {0x01020304u, 0xA0B0C0D0u};
  EXPECT_EQ(fwritee(words, 4, 2, out, true), 2);
  const uint16_t plain = 0x1122;
  EXPECT_EQ(fwritee(&plain, 2, 1, out, false), 1);
  fclose(out);
  EXPECT_EQ(readFile(path), std::string("\x01\x02\x03\x04\xA0\xB0\xC0\xD0\x22\x11", 10));

  FILE* in = fopen(path.c_str(), "rb");
  uint32_t back[2] = {0, 0};
  EXPECT_EQ(freade(back, 4, 2, in, true), 2);
  EXPECT_EQ(back[0], 0x01020304u);
  EXPECT_EQ(back[1], 0xA0B0C0D0u);
  uint16_t plainBack = 0;
  EXPECT_EQ(freade(&plainBack, 2, 1, in, false), 1);
  EXPECT_EQ(plainBack, 0x1122);
  // At the end of the file the swapped read gives the negated byte count,
  // the plain read an item count of 0.
  uint32_t more[3];
  EXPECT_EQ(freade(more, 4, 3, in, true), -12);
  EXPECT_EQ(freade(more, 4, 3, in, false), 0);
  fclose(in);
}
