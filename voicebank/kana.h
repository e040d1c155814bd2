// Kana syllables and their Hepburn romaji, for lyrics sung on banks that
// name their entries the other way (romaji aliases for kana lyrics, and
// the reverse).
#pragma once

#include <string>

// The romaji of a lyric that is one kana syllable (hiragana or katakana,
// small kana combinations included), else "".
std::string kanaToRomaji(const std::string& lyric);
// The hiragana of a lyric that is one romaji syllable, else "".
std::string romajiToKana(const std::string& lyric);

struct KanaSyllable {
  const char* kana;    // hiragana, UTF-8
  const char* romaji;  // Hepburn
};
// The table itself: where one romaji has several kana, the first is the
// one romaji turns into.
const KanaSyllable* kanaTable(int* count);
