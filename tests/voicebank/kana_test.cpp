#include "voicebank/kana.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/voicebank/bank.h"
#include "voicebank/voiceset.h"

namespace {

// Hiragana to katakana: U+3041..U+3096 moved by 0x60.
std::string katakana(const std::string& hiragana) {
  std::string out = hiragana;
  for (size_t i = 0; i + 2 < out.size(); i += 3) {
    uint32_t code = ((out[i] & 0x0Fu) << 12) | ((out[i + 1] & 0x3Fu) << 6) | (out[i + 2] & 0x3Fu);
    code += 0x60;
    out[i] = static_cast<char>(0xE0 | (code >> 12));
    out[i + 1] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out[i + 2] = static_cast<char>(0x80 | (code & 0x3F));
  }
  return out;
}

}  // namespace

TEST(Kana, EverySyllableBothWays) {
  int count = 0;
  const KanaSyllable* table = kanaTable(&count);
  ASSERT_GT(count, 150);
  for (int k = 0; k < count; ++k) {
    const std::string kana = table[k].kana, romaji = table[k].romaji;
    EXPECT_EQ(kanaToRomaji(kana), romaji) << kana;
    EXPECT_EQ(kanaToRomaji(katakana(kana)), romaji) << kana;
    // Back from romaji: the syllable itself, or the first of those sharing its romaji.
    EXPECT_EQ(kanaToRomaji(romajiToKana(romaji)), romaji) << romaji;
  }
  EXPECT_EQ(romajiToKana("ji"), "じ");
  EXPECT_EQ(romajiToKana("o"), "お");
  EXPECT_EQ(kanaToRomaji("きゃ"), "kya");
  EXPECT_EQ(kanaToRomaji("シャ"), "sha");
  EXPECT_EQ(kanaToRomaji("か1"), "");    // not one syllable
  EXPECT_EQ(kanaToRomaji("かか"), "");
  EXPECT_EQ(romajiToKana("xyz"), "");
}

TEST(Kana, LyricsOnABankNamedTheOtherWay) {
  TestBank romaji;
  romaji.write("oto.ini", "ka.wav=ka,0,0,0,0,0\nshi.wav=shi,0,0,0,0,0\ntsu.wav=tsu,0,0,0,0,0\n");
  cvoiceset set;
  ASSERT_GT(set.read_voiceset(romaji.path().c_str()), 0);
  ASSERT_NE(set.get_voicedata(nullptr, "か", 60), nullptr);
  EXPECT_STREQ(set.get_voicedata(nullptr, "シ", 60)->filename, "shi.wav");
  EXPECT_EQ(set.lastLookupForm(), "shi");
  EXPECT_STREQ(set.get_voicedata(nullptr, "tsu", 60)->filename, "tsu.wav");
  EXPECT_EQ(set.lastLookupForm(), "");  // found as given
  EXPECT_EQ(set.get_voicedata(nullptr, "さ", 60), nullptr);
  TestBank kana;
  kana.write("oto.ini", "#Charset:UTF-8\n_k.wav=か,0,0,0,0,0\n");  // a file name that does not say "ka"
  cvoiceset other;
  ASSERT_GT(other.read_voiceset(kana.path().c_str()), 0);
  ASSERT_NE(other.get_voicedata(nullptr, "ka", 60), nullptr);
  EXPECT_EQ(other.lastLookupForm(), "か");
}

TEST(Kana, RomajiTypedAsTextBecomesHiragana) {
  const std::pair<const char*, const char*> cases[] = {
      {"sakura", "さくら"},         {"SaKuRa", "さくら"},       {"konnichiwa", "こんにちわ"},
      {"kitte", "きって"},          {"matcha", "まっちゃ"},     {"shinbun", "しんぶん"},
      {"kyoto", "きょと"},          {"a i u", "あ い う"},       {"tsukiyo", "つきよ"},
      {"fa fi", "ふぁ ふぃ"},        {"x1さ", "x1さ"},           {"", ""},
      {"nn", "んん"},               {"hon", "ほん"},            {"aa", "ああ"},
  };
  for (const auto& [text, kana] : cases) EXPECT_EQ(romajiTextToKana(text), kana) << text;
}
