// What a project reader does to a freshly loaded voice set: install the
// connective-vowel rules (which entry follows which vowel) and bring the
// bank's Shift_JIS texts to UTF-8.
#pragma once

class cvoiceset;

// Installs the rules: after a lyric ending in a vowel's kana the prefix
// "a ", "e ", "i ", "o ", "u ", "n " or "+ " is tried first; "- " heads a
// note with no preceding lyric; "* " is the fallback.
void installConnectiveRules(cvoiceset* voiceset);

// Converts every entry's alias and file name from Shift_JIS to UTF-8 when
// the bank's charset is not UTF-8, and the prefix-map texts likewise by the
// prefix map's own charset. A text that does not convert is kept as it is;
// a converted text is cut at a character boundary to fit its field.
void convertVoicesetTexts(cvoiceset* voiceset);
