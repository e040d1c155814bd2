// The kana of VSQ lyrics and their phonemes, in the VSQ format's
// X-SAMPA-based Japanese notation: one table, in the order lookups take.
#pragma once

struct VsqSyllable {
  const char* kana;     // UTF-8
  const char* phoneme;  // symbols separated by a blank
};

// The 147 rows; *count receives their number.
const VsqSyllable* vsqTable(int* count);
