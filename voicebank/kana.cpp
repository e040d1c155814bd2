#include "voicebank/kana.h"

#include <cstdint>
#include <cstring>

namespace {

// Hepburn, as banks name their samples. Duplicates of a romaji come after
// the kana it should turn back into (じ before ぢ, ず before づ, お before を).
const KanaSyllable kSyllables[] = {
    {"あ", "a"}, {"い", "i"}, {"う", "u"}, {"え", "e"}, {"お", "o"},
    {"か", "ka"}, {"き", "ki"}, {"く", "ku"}, {"け", "ke"}, {"こ", "ko"},
    {"さ", "sa"}, {"し", "shi"}, {"す", "su"}, {"せ", "se"}, {"そ", "so"},
    {"た", "ta"}, {"ち", "chi"}, {"つ", "tsu"}, {"て", "te"}, {"と", "to"},
    {"な", "na"}, {"に", "ni"}, {"ぬ", "nu"}, {"ね", "ne"}, {"の", "no"},
    {"は", "ha"}, {"ひ", "hi"}, {"ふ", "fu"}, {"へ", "he"}, {"ほ", "ho"},
    {"ま", "ma"}, {"み", "mi"}, {"む", "mu"}, {"め", "me"}, {"も", "mo"},
    {"や", "ya"}, {"ゆ", "yu"}, {"よ", "yo"},
    {"ら", "ra"}, {"り", "ri"}, {"る", "ru"}, {"れ", "re"}, {"ろ", "ro"},
    {"わ", "wa"}, {"を", "o"}, {"ん", "n"},
    {"が", "ga"}, {"ぎ", "gi"}, {"ぐ", "gu"}, {"げ", "ge"}, {"ご", "go"},
    {"ざ", "za"}, {"じ", "ji"}, {"ず", "zu"}, {"ぜ", "ze"}, {"ぞ", "zo"},
    {"だ", "da"}, {"ぢ", "ji"}, {"づ", "zu"}, {"で", "de"}, {"ど", "do"},
    {"ば", "ba"}, {"び", "bi"}, {"ぶ", "bu"}, {"べ", "be"}, {"ぼ", "bo"},
    {"ぱ", "pa"}, {"ぴ", "pi"}, {"ぷ", "pu"}, {"ぺ", "pe"}, {"ぽ", "po"},
    {"ゔ", "vu"},
    {"きゃ", "kya"}, {"きゅ", "kyu"}, {"きぇ", "kye"}, {"きょ", "kyo"},
    {"しゃ", "sha"}, {"しゅ", "shu"}, {"しぇ", "she"}, {"しょ", "sho"},
    {"ちゃ", "cha"}, {"ちゅ", "chu"}, {"ちぇ", "che"}, {"ちょ", "cho"},
    {"にゃ", "nya"}, {"にゅ", "nyu"}, {"にぇ", "nye"}, {"にょ", "nyo"},
    {"ひゃ", "hya"}, {"ひゅ", "hyu"}, {"ひぇ", "hye"}, {"ひょ", "hyo"},
    {"みゃ", "mya"}, {"みゅ", "myu"}, {"みぇ", "mye"}, {"みょ", "myo"},
    {"りゃ", "rya"}, {"りゅ", "ryu"}, {"りぇ", "rye"}, {"りょ", "ryo"},
    {"ぎゃ", "gya"}, {"ぎゅ", "gyu"}, {"ぎぇ", "gye"}, {"ぎょ", "gyo"},
    {"じゃ", "ja"}, {"じゅ", "ju"}, {"じぇ", "je"}, {"じょ", "jo"},
    {"ぢゃ", "ja"}, {"ぢゅ", "ju"}, {"ぢょ", "jo"},
    {"びゃ", "bya"}, {"びゅ", "byu"}, {"びぇ", "bye"}, {"びょ", "byo"},
    {"ぴゃ", "pya"}, {"ぴゅ", "pyu"}, {"ぴぇ", "pye"}, {"ぴょ", "pyo"},
    {"ふぁ", "fa"}, {"ふぃ", "fi"}, {"ふぇ", "fe"}, {"ふぉ", "fo"}, {"ふゅ", "fyu"},
    {"てぃ", "ti"}, {"てゅ", "tyu"}, {"でぃ", "di"}, {"でゅ", "dyu"},
    {"とぅ", "tu"}, {"どぅ", "du"},
    {"すぃ", "si"}, {"ずぃ", "zi"},
    {"つぁ", "tsa"}, {"つぃ", "tsi"}, {"つぇ", "tse"}, {"つぉ", "tso"},
    {"いぇ", "ye"}, {"うぃ", "wi"}, {"うぇ", "we"}, {"うぉ", "wo"},
    {"くぁ", "kwa"}, {"ぐぁ", "gwa"},
    {"ゔぁ", "va"}, {"ゔぃ", "vi"}, {"ゔぇ", "ve"}, {"ゔぉ", "vo"}, {"ゔゅ", "vyu"},
    // Small kana sung alone.
    {"ぁ", "a"}, {"ぃ", "i"}, {"ぅ", "u"}, {"ぇ", "e"}, {"ぉ", "o"},
    {"ゃ", "ya"}, {"ゅ", "yu"}, {"ょ", "yo"}, {"ゎ", "wa"},
};

// Katakana as hiragana (U+30A1..U+30F6 are U+3041..U+3096 moved by 0x60);
// "" when the text holds anything else.
std::string asHiragana(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    if (lead != 0xE3 || i + 2 >= text.size()) return "";
    uint32_t code = ((lead & 0x0Fu) << 12) | ((static_cast<unsigned char>(text[i + 1]) & 0x3Fu) << 6) |
                    (static_cast<unsigned char>(text[i + 2]) & 0x3Fu);
    if (code >= 0x30A1 && code <= 0x30F6) code -= 0x60;
    if (code < 0x3041 || code > 0x3096) return "";
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
    i += 3;
  }
  return out;
}

}  // namespace

const KanaSyllable* kanaTable(int* count) {
  if (count != nullptr) *count = static_cast<int>(sizeof kSyllables / sizeof kSyllables[0]);
  return kSyllables;
}

std::string kanaToRomaji(const std::string& lyric) {
  const std::string hiragana = asHiragana(lyric);
  if (hiragana.empty()) return "";
  for (const KanaSyllable& syllable : kSyllables) {
    if (hiragana == syllable.kana) return syllable.romaji;
  }
  return "";
}

std::string romajiToKana(const std::string& lyric) {
  for (const KanaSyllable& syllable : kSyllables) {
    if (lyric == syllable.romaji) return syllable.kana;
  }
  return "";
}

std::string romajiTextToKana(const std::string& text) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  auto letter = [&](size_t at) { return at < text.size() ? lower(text[at]) : '\0'; };
  auto isLetter = [](char c) { return c >= 'a' && c <= 'z'; };
  auto isVowel = [](char c) { return strchr("aeiou", c) != nullptr && c != '\0'; };
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    const char c = letter(at);
    if (!isLetter(c)) {
      out += text[at++];
      continue;
    }
    // "kk", "ss", "tch": a small tsu before the syllable.
    const char next = letter(at + 1);
    if ((c == next && c != 'n' && !isVowel(c)) || (c == 't' && next == 'c' && letter(at + 2) == 'h')) {
      out += "っ";
      ++at;
      continue;
    }
    bool matched = false;
    for (size_t length = 4; length >= 1 && !matched; --length) {
      if (at + length > text.size()) continue;
      std::string piece;
      for (size_t k = 0; k < length; ++k) piece += letter(at + k);
      const std::string kana = romajiToKana(piece);
      if (kana.empty()) continue;
      out += kana;
      at += length;
      matched = true;
    }
    if (!matched) out += text[at++];
  }
  return out;
}
