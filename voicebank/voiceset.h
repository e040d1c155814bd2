// cvoiceset: the in-memory index of one voice bank.
//
// The entries come from the bank's oto.ini files (the top folder's and
// each direct subfolder's) or from the editor's own oto_ini.txt; the
// prefix table from prefixmap / prefix.map. Lookups resolve a note's
// lyric, note number and preceding lyric into one entry, first hit in file
// order. Texts are stored as bytes as read (Shift_JIS in most banks); the
// project reader converts them afterwards.
//
// Rendered notes point into the entry array, so it must not change while
// a render runs. Not thread safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>
#include <unordered_map>

struct VoiceData {
  char filename[256];  // relative to the bank folder; subfolder entries start "name/"
  char alias[64];      // what lyrics are matched against; may be empty
  float offset;        // msec from the file's start to the usable region
  float fixed;         // msec of consonant, not stretched
  float blank;         // msec cut off at the end, as written (sign kept)
  float preuttr;       // msec
  float overlap;       // msec
  int32_t unused[3];   // zero when read, never interpreted
  int32_t removeMark;  // 1 on rows the entry editor is about to remove
};

struct PrefixMapEntry {
  char name[12];  // row 0 only: the prefix map file's charset
  char prefix[32];
  char suffix[32];
};

class cvoiceset {
 public:
  static constexpr int kPrefixRows = 108;  // MIDI notes 0..107
  static constexpr int kCharsetSize = 128;

  cvoiceset();
  ~cvoiceset();
  cvoiceset(const cvoiceset&) = delete;
  cvoiceset& operator=(const cvoiceset&) = delete;

  // Loads a bank folder: oto_ini.txt alone when it exists, else the top
  // oto.ini and every direct subfolder's; then the prefix map. Returns -1
  // for a null or empty path, else a value whose sign tells whether
  // anything was read (positive) or not (below 1).
  int32_t read_voiceset(const char* folder);
  // Appends the entries of one table, their file names after `prefix`.
  // Returns -1 when the file cannot be opened, else the total entry count.
  int32_t read_otoini(const char* path, const char* prefix);
  // Reads the prefix table (zeroed first). -1 when the file cannot be
  // opened (the table stays), else 96.
  int32_t read_prefixmap(const char* path);
  // Writes nothing and returns 0: oto.ini files are never rewritten.
  int32_t write_otoini(const char* path);
  // Saves every entry as UTF-8 oto_ini.txt. 0 when the file cannot be
  // created, else the number of entries written.
  int32_t wrtie_otoinitxt(const char* path);
  // Writes notes B7 down to C1. 0 when the file cannot be created.
  int32_t write_prefixmap(const char* path, const char* charset);

  // The entry a note sings: preceding lyric (null or empty: none), lyric,
  // note number. Null when nothing matches.
  VoiceData* get_voicedata(const char* previous, const char* lyric, int32_t noteNum);
  // The lyric as the last get_voicedata found it when that was not as
  // given (a kana lyric as romaji, or the reverse); "" otherwise.
  const std::string& lastLookupForm() const { return lastForm_; }
  // A lyric as this bank sings it: the form the lookup finds it under
  // (romaji for a kana bank's entry, kana for a romaji bank's), or, for
  // romaji that names a sample file of a bank whose aliases are kana ("sa"
  // for sa.wav, alias "さ"), the kana; otherwise the lyric as it is.
  std::string sungForm(const std::string& lyric, int32_t noteNum);
  // What the last read_voiceset brought into range: "FILE: ENTRY: field=
  // value is outside ...", one line a value moved.
  const std::vector<std::string>& notices() const { return notices_; }
  // The first entry whose alias is `name`, else the first whose file name
  // starts with name + ".".
  VoiceData* search_voicedata(const char* name);
  // The connective prefix for a preceding lyric (never null).
  const char* get_prefix(const char* previous);
  // The lyric with the note's table prefix and suffix (notes 1..95 only;
  // a lyric starting with "?" is taken as it is, without the "?").
  char* getmodifyname(const char* lyric, int32_t noteNum, char* out, int32_t capacity);
  // C4 is 60, A4 69, C-1 0; 0 for an invalid name.
  static int32_t name2num(const char* name);
  // Installs the connective rules: endings[i] lists the endings of
  // prefixes[i], each followed by "|".
  void setVCCMParams(const char* head, const char* fallback, const char* const* prefixes,
                     const char* const* endings, int32_t count);
  bool hasRules() const { return prefixes_ != nullptr; }

  int32_t count() const { return count_; }
  VoiceData* getVoiceEntry(int32_t index);
  const char* get_filename(int32_t index);
  const char* get_alias(int32_t index);
  void set_filename(int32_t index, const char* text);  // keeps 255 bytes
  void set_alias(int32_t index, const char* text);     // keeps 31 bytes
  const char* set_charset(const char* text);
  const char* charset() const { return charset_; }
  int32_t add_item(const VoiceData* record);
  // Always lands at the end: at the larger of index and the count.
  int32_t insert_item(int32_t index, const VoiceData* record);
  VoiceData* remove_item(int32_t index, VoiceData* out);
  VoiceData* remove_item(const VoiceData* record, VoiceData* out);
  void free_otoini();
  // Call after changing entries in place through getVoiceEntry.
  void entriesChanged() { touch(); }

  PrefixMapEntry prefixMap[kPrefixRows];

 private:
  std::vector<std::string> notices_;
  // The documented search for one form of the lyric.
  VoiceData* lookupLyric(const char* previous, const char* lyric, int32_t noteNum);
  std::string lastForm_;
  bool grow();
  const VoiceData* searchByFilename(const std::string& nameDot, int8_t compareLength);
  void buildIndex();
  void touch() { indexed_ = false; }

  VoiceData* entries_ = nullptr;
  int32_t count_ = 0;
  int32_t capacity_ = 0;
  char* charset_;
  char* defaultPrefix_;
  char* headPrefix_ = nullptr;
  char* fallbackPrefix_ = nullptr;
  char** prefixes_ = nullptr;  // null-terminated
  char** endings_ = nullptr;   // null-terminated, parallel; items NUL-separated

  // First-hit index beside the array, rebuilt after any change: alias ->
  // first entry, and each file name's start up to and including a "." ->
  // first entry. It gives the answers of the linear scans.
  bool indexed_ = false;
  std::unordered_map<std::string, int32_t> aliasIndex_;
  std::unordered_map<std::string, int32_t> dotIndex_;
};

namespace copendir {
// Whether subfolder names are used as read (true) or converted from UTF-8
// to Shift_JIS (false) when they become file-name prefixes.
extern bool isUTF8;
// Calls (target->*op)(folder/NAME/oto.ini, "NAME/") for every direct
// subfolder NAME not starting with "." in directory order. Returns -1 when
// the folder cannot be opened, else the sum of the results.
int32_t read_folder_otoini(const char* folder, cvoiceset* target,
                           int32_t (cvoiceset::*op)(const char*, const char*));
}  // namespace copendir
