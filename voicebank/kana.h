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
// A text with romaji words in it, as people type lyrics ("sakura",
// "konnichiwa", "kitte"), with each romaji syllable made hiragana: the
// longest syllable at each place, a doubled consonant as a small tsu, an
// "n" no syllable takes as "ん". Whatever is not romaji stays as it is.
std::string romajiTextToKana(const std::string& text);

struct KanaSyllable {
  const char* kana;    // hiragana, UTF-8
  const char* romaji;  // Hepburn
};
// The table itself: where one romaji has several kana, the first is the
// one romaji turns into.
const KanaSyllable* kanaTable(int* count);
