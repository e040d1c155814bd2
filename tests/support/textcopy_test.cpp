#include "support/textcopy.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {
// A field of `capacity` bytes followed by guard bytes that must survive.
struct GuardedField {
  static constexpr int kGuard = 8;
  char bytes[64 + kGuard];
  int capacity;
  explicit GuardedField(int cap) : capacity(cap) { memset(bytes, '#', sizeof bytes); }
  bool guardIntact() const {
    for (int i = capacity; i < capacity + kGuard; ++i) {
      if (bytes[i] != '#') return false;
    }
    return true;
  }
};
}  // namespace

TEST(BoundedCopy, KeepsCapacityLessOneAndTerminates) {
  const char* text = "0123456789";  // 10 bytes
  for (int capacity : {1, 2, 9, 10, 11, 12}) {
    GuardedField field(capacity);
    strcpy_n(field.bytes, text, capacity);
    size_t expected = std::min<size_t>(10, static_cast<size_t>(capacity) - 1);
    EXPECT_EQ(strlen(field.bytes), expected) << "capacity " << capacity;
    EXPECT_EQ(0, strncmp(field.bytes, text, expected));
    EXPECT_TRUE(field.guardIntact()) << "capacity " << capacity;
  }
}

TEST(BoundedCopy, NullsAndZeroCapacityChangeNothing) {
  char field[4] = "abc";
  strcpy_n(field, nullptr, 4);
  EXPECT_STREQ(field, "abc");
  strcpy_n(field, "xy", 0);
  EXPECT_STREQ(field, "abc");
  strcpy_n(field, "xy", -3);
  EXPECT_STREQ(field, "abc");
  EXPECT_EQ(strcpy_n(nullptr, "xy", 4), nullptr);
  strcat_n(field, nullptr, 4);
  EXPECT_STREQ(field, "abc");
  EXPECT_EQ(strcat_n(nullptr, "xy", 4), nullptr);
  strcpy_utf8_n(field, nullptr, 4);
  EXPECT_STREQ(field, "abc");
  EXPECT_EQ(strcpy_utf8_n(nullptr, "xy", 4), nullptr);
  strcpy_utf8_n(field, "xy", 1);  // room for the terminator alone
  EXPECT_STREQ(field, "");
}

TEST(BoundedAppend, FillsTheRoomLeft) {
  GuardedField field(8);
  strcpy_n(field.bytes, "B", field.capacity);
  strcat_n(field.bytes, "60", field.capacity);
  EXPECT_STREQ(field.bytes, "B60");
  strcat_n(field.bytes, "g-5Y0H", field.capacity);
  EXPECT_STREQ(field.bytes, "B60g-5Y");  // 7 bytes and a terminator
  strcat_n(field.bytes, "more", field.capacity);
  EXPECT_STREQ(field.bytes, "B60g-5Y");
  EXPECT_TRUE(field.guardIntact());
}

TEST(BoundedAppend, LeavesAnUnterminatedFieldAlone) {
  char field[4] = {'a', 'b', 'c', 'd'};
  strcat_n(field, "x", 4);
  EXPECT_EQ(0, memcmp(field, "abcd", 4));
}

TEST(BoundedCopy, Utf8CutFallsOnACharacterBoundary) {
  const char* kana = "\xe3\x81\x8b\xe3\x81\x95";  // two three-byte characters
  char field[8];
  strcpy_utf8_n(field, kana, 6);  // room for 5 bytes: one character fits
  EXPECT_STREQ(field, "\xe3\x81\x8b");
  strcpy_utf8_n(field, kana, 7);  // exactly room for both
  EXPECT_STREQ(field, kana);
  strcpy_utf8_n(field, "abc", 3);
  EXPECT_STREQ(field, "ab");
}
