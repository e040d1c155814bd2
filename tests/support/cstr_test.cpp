#include "support/cstr.h"

#include <gtest/gtest.h>

#include <string>

#include "support/tarr.h"

TEST(Cstr, SubstrClampsStartAndCount) {
  cstr text("abcdef");
  EXPECT_EQ(text.substr(-3, 2), "ab");
  EXPECT_EQ(text.substr(4, 10), "ef");
  EXPECT_EQ(text.substr(6, 1), "");
  EXPECT_FALSE(text.substr(6, 1).isNull());
  EXPECT_EQ(text.substr(10, 1), "");  // past the end
  EXPECT_EQ(text.substr(2, -1), "cdef");
  EXPECT_EQ(text.substr(1, 0), "");
  EXPECT_EQ(text.substr(1, 0).length(), 0u);
  EXPECT_EQ(cstr().substr(0, 3), "");
}

TEST(Cstr, SeparatorComponents) {
  cstr path("voice/bank/ka.wav");
  EXPECT_EQ(path.lastComponentBySeparator('/'), "ka.wav");
  cstr head = path.removeLastComponentBySeparator('/');
  EXPECT_EQ(path, "voice/bank");
  EXPECT_EQ(path.length(), 10u);
  EXPECT_EQ(head, "voice/bank");

  cstr plain("plain");
  EXPECT_EQ(plain.lastComponentBySeparator('/'), "plain");
  plain.removeLastComponentBySeparator('/');
  EXPECT_TRUE(plain.isNull());
  EXPECT_EQ(plain.length(), 0u);

  cstr trailing("dir/");
  EXPECT_EQ(trailing.lastComponentBySeparator('/'), "");
}

TEST(Cstr, NullAndEmptyCompareDifferentlyToTextsButAlikeToStrings) {
  cstr null;
  cstr empty("");
  const char* noText = nullptr;
  EXPECT_TRUE(null == noText);
  EXPECT_FALSE(null == "");
  EXPECT_TRUE(empty == "");
  EXPECT_FALSE(empty == noText);
  // Between two strings only the zero lengths are compared.
  EXPECT_TRUE(null == empty);
  EXPECT_FALSE(null == cstr("a"));
  EXPECT_TRUE(cstr("abc") == cstr("abc"));
  EXPECT_FALSE(cstr("abc") == cstr("abd"));
  EXPECT_TRUE(cstr(noText).isNull());
}

TEST(Cstr, AssignAppendAndConcatenate) {
  cstr s("ka");
  cstr copy = (s += "ki");
  EXPECT_EQ(s, "kaki");
  EXPECT_EQ(copy, "kaki");
  EXPECT_EQ(s.length(), 4u);
  s += cstr("ku");
  EXPECT_EQ(s, "kakiku");
  EXPECT_EQ("<" + s + ">", "<kakiku>");
  EXPECT_EQ(s + cstr("!"), "kakiku!");

  cstr null;
  null += "x";
  EXPECT_EQ(null, "x");

  s = s.c_str() + 2;  // assigning from its own text
  EXPECT_EQ(s, "kiku");
  s = cstr();
  EXPECT_TRUE(s.isNull());
}

TEST(Cstr, ResizeShortensAndGrows) {
  cstr s("abcdef");
  s.resize(3);
  EXPECT_EQ(s, "abc");
  EXPECT_EQ(s.length(), 3u);
  s.resize(10);
  EXPECT_EQ(s.length(), 3u);
  EXPECT_EQ(s, "abc");
  cstr sized(static_cast<size_t>(4));
  EXPECT_EQ(sized.length(), 4u);
  EXPECT_EQ(sized.c_str()[4], '\0');
}

TEST(Cstr, FormatCutsAtItsCapacity) {
  EXPECT_EQ(cstr::format("%d_%s", 7, "ka"), "7_ka");
  std::string longText(20000, 'x');
  cstr cut = cstr::format("%s", longText.c_str());
  EXPECT_EQ(cut.length(), 16384u);
}

struct Counted {
  explicit Counted(int* alive) : alive_(alive) { ++*alive_; }
  ~Counted() { --*alive_; }
  int* alive_;
};

TEST(Tarr, AddInsertsOrAppendsAndClearDestroys) {
  int alive = 0;
  {
    TARR<cstr> names;
    names.add(new cstr("b"));
    names.add(new cstr("d"), 7);   // past the end: appended
    names.add(new cstr("a"), 0);
    names.add(new cstr("c"), 2);
    names.add(new cstr("e"), -1);  // negative: appended
    ASSERT_EQ(names.count(), 5);
    std::string joined;
    for (int i = 0; i < names.count(); ++i) joined += names[i]->c_str();
    EXPECT_EQ(joined, "abcde");
    EXPECT_EQ(names[5], nullptr);

    TARR<Counted> owned;
    owned.add(new Counted(&alive));
    owned.add(nullptr);
    owned.add(new Counted(&alive));
    EXPECT_EQ(alive, 2);
    owned.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(owned.count(), 0);
    owned.add(new Counted(&alive));
  }
  EXPECT_EQ(alive, 0);  // the destructor clears too
}
