#include "support/multibyte.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {
using wchar = CMultiByte::wchar;

const char kKanaSjis[] = "\x82\xa9\x82\xc8";        // かな
const char kKanaUtf8[] = "\xe3\x81\x8b\xe3\x81\xaa";  // かな

std::string wide(const wchar* text) {
  std::string units;
  for (; text != nullptr && *text != 0; ++text) units += std::to_string(*text) + ",";
  return units;
}
}  // namespace

TEST(MultiByte, HalfWidthKatakanaConvertsWhole) {
  // One byte each in Shift_JIS, three in UTF-8: the output has room.
  std::string sjis(10, '\xb1');  // ｱ
  CMultiByte cm;
  const char* utf8 = cm.sjisToUtf8(sjis.c_str());
  ASSERT_NE(utf8, nullptr);
  EXPECT_EQ(strlen(utf8), 30u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(std::string(utf8 + 3 * i, 3), "\xef\xbd\xb1");
}

TEST(MultiByte, ShiftJisAsWindowsWritesIt) {
  CMultiByte cm;
  EXPECT_STREQ(cm.sjisToUtf8("C:\\voice"), "C:\\voice");            // 0x5C is a backslash, not a yen sign
  EXPECT_STREQ(cm.sjisToUtf8("\x81\x60"), "\xef\xbd\x9e");        // the tilde Windows users typed
  EXPECT_STREQ(cm.sjisToUtf8("\x87\x40"), "\xe2\x91\xa0");        // a circled 1, Windows only
  EXPECT_STREQ(cm.utf8ToSjis("\xef\xbd\x9e"), "\x81\x60");        // and back
}

TEST(MultiByte, AnInvalidByteEndsTheText) {
  CMultiByte cm;
  EXPECT_STREQ(cm.sjisToUtf8("\x82\xa9\xff\x82\xa9"), "\xe3\x81\x8b");
  EXPECT_STREQ(cm.sjisToUtf8("ab\x81"), "ab");  // lead byte without its trail
  EXPECT_STREQ(cm.utf8ToSjis("ka\xe3\x81"), "ka");

  char out[16];
  size_t left = CMultiByte::convert("\x82\xa9\xff", 3, out, sizeof out - 1, "SJIS", "UTF8");
  EXPECT_EQ(left, 1u);
  EXPECT_STREQ(out, "\xe3\x81\x8b");
  EXPECT_EQ(CMultiByte::convert(kKanaSjis, 4, out, sizeof out - 1, "SJIS", "UTF8"), 0u);
}

TEST(MultiByte, WholeConversionOrTheTextAsItIs) {
  CMultiByte cm;
  EXPECT_STREQ(cm.sjisToUtf8OrSame(kKanaSjis), kKanaUtf8);
  const char broken[] = "\x82\xa9\xff";
  EXPECT_EQ(cm.sjisToUtf8OrSame(broken), broken);
  EXPECT_EQ(cm.sjisToUtf8OrSame(nullptr), nullptr);
}

TEST(MultiByte, ResultsOfOneKindShareABuffer) {
  CMultiByte cm;
  const char* first = cm.sjisToUtf8(kKanaSjis);
  std::string firstCopy = first;
  const char* second = cm.sjisToUtf8("\x82\xa0");  // あ
  EXPECT_EQ(firstCopy, kKanaUtf8);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "\xe3\x81\x82");

  // A result of the other kind lives in its own buffer.
  const wchar* units = cm.utf8ToWchar(kKanaUtf8);
  EXPECT_STREQ(second, "\xe3\x81\x82");
  EXPECT_EQ(wide(units), "12363,12394,");
}

TEST(MultiByte, Utf16RoundTripsOfKana) {
  CMultiByte cm;
  const wchar* fromUtf8 = cm.utf8ToWchar(kKanaUtf8);
  ASSERT_NE(fromUtf8, nullptr);
  EXPECT_EQ(wide(fromUtf8), "12363,12394,");  // U+304B U+306A
  std::u16string units(reinterpret_cast<const char16_t*>(fromUtf8));
  EXPECT_STREQ(cm.wcharToUtf8(reinterpret_cast<const wchar*>(units.c_str())), kKanaUtf8);
  EXPECT_STREQ(cm.wcharToSjis(reinterpret_cast<const wchar*>(units.c_str())), kKanaSjis);
  EXPECT_EQ(wide(cm.sjisToWchar(kKanaSjis)), "12363,12394,");
  EXPECT_STREQ(cm.utf8ToSjis(kKanaUtf8), kKanaSjis);
}

TEST(MultiByte, NullAndEmptyInputs) {
  CMultiByte cm;
  const wchar emptyWide[1] = {0};
  EXPECT_EQ(cm.sjisToUtf8(nullptr), nullptr);
  EXPECT_EQ(cm.utf8ToWchar(nullptr), nullptr);
  EXPECT_EQ(cm.wcharToUtf8(nullptr), nullptr);
  EXPECT_STREQ(cm.sjisToUtf8(""), "");
  EXPECT_STREQ(cm.utf8ToSjis(""), "");
  EXPECT_STREQ(cm.wcharToSjis(emptyWide), "");
  ASSERT_NE(cm.utf8ToWchar(""), nullptr);
  EXPECT_EQ(cm.utf8ToWchar("")[0], 0);
  EXPECT_EQ(cm.sjisToWchar(""), nullptr);
}
