#include "voicebank/voiceset.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/ranges.h"
#include "support/log.h"
#include "support/multibyte.h"
#include "support/regular_file.h"
#include "support/textcopy.h"
#include "support/textfile.h"
#include "voicebank/kana.h"

namespace copendir {
bool isUTF8 = false;
}

namespace {

constexpr int kLineSize = 1024;  // lines of up to 1023 bytes

// Cuts a line read by fgets at its first LF and its first CR.
void cutLineEnd(char* line) {
  char* lf = strchr(line, '\n');
  if (lf != nullptr) *lf = '\0';
  char* cr = strchr(line, '\r');
  if (cr != nullptr) *cr = '\0';
}

bool isUtf8Name(const char* charset) {
  return strcmp(charset, "utf8") == 0 || strcmp(charset, "UTF8") == 0 || strcmp(charset, "utf-8") == 0 ||
         strcmp(charset, "UTF-8") == 0;
}

char* copyText(const char* text) { return strdup(text != nullptr ? text : ""); }

void freeList(char** list) {
  if (list == nullptr) return;
  for (char** item = list; *item != nullptr; ++item) free(*item);
  free(list);
}

// Reads one number piece with "%f"; an unreadable piece leaves the field,
// and so does one that is not finite ("nan", "inf"): timings are numbers.
void readFloat(const char* piece, float* field) {
  float value = 0.0f;
  if (sscanf(piece, "%f", &value) == 1 && std::isfinite(value)) *field = value;
}

// Fills an entry from the text after "=": alias, then offset, fixed,
// blank, pre-utterance and overlap, split at commas. The alias needs its
// comma; a number is read up to the next comma or the end of the line,
// and a missing comma ends the entry there.
void parseEntryValues(char* text, VoiceData* entry) {
  char* comma = strchr(text, ',');
  if (comma == nullptr) return;
  *comma = '\0';
  strcpy_n(entry->alias, text, sizeof entry->alias);
  float* fields[] = {&entry->offset, &entry->fixed, &entry->blank, &entry->preuttr, &entry->overlap};
  char* piece = comma + 1;
  for (int i = 0; i < 5; ++i) {
    char* next = i < 4 ? strchr(piece, ',') : nullptr;
    if (next != nullptr) *next = '\0';
    readFloat(piece, fields[i]);
    if (next == nullptr) return;
    piece = next + 1;
  }
}

}  // namespace

cvoiceset::cvoiceset() : charset_(static_cast<char*>(calloc(kCharsetSize, 1))), defaultPrefix_(copyText("")) {
  memset(prefixMap, 0, sizeof prefixMap);
  strcpy_n(charset_, "UTF-8", kCharsetSize);
}

cvoiceset::~cvoiceset() {
  free(entries_);
  free(charset_);
  free(defaultPrefix_);
  free(headPrefix_);
  free(fallbackPrefix_);
  freeList(prefixes_);
  freeList(endings_);
}

// --- Reading -------------------------------------------------------------------

int32_t cvoiceset::read_voiceset(const char* folder) {
  if (folder == nullptr || folder[0] == '\0') return -1;
  free_otoini();
  notices_.clear();
  std::string dir = folder;
  if (dir.back() != '/') dir += '/';

  int32_t result = read_otoini((dir + "oto_ini.txt").c_str(), "");
  if (result == -1) {
    // The failed open has just emptied the charset, so subfolder names are
    // always converted to Shift_JIS on this path.
    copendir::isUTF8 = isUtf8Name(charset_);
    result = read_otoini((dir + "oto.ini").c_str(), "");
    const int32_t walked = copendir::read_folder_otoini(dir.c_str(), this, &cvoiceset::read_otoini);
    if (walked >= 1) result += walked;
  }
  if (result < 1) return result;
  if (read_prefixmap((dir + "prefixmap").c_str()) == -1) read_prefixmap((dir + "prefix.map").c_str());
  return result;
}

bool cvoiceset::grow() {
  if (count_ < capacity_) return true;
  const int32_t wanted = capacity_ < 64 ? 64 : capacity_ * 2;
  VoiceData* grown = static_cast<VoiceData*>(realloc(entries_, sizeof(VoiceData) * static_cast<size_t>(wanted)));
  if (grown == nullptr) return false;
  entries_ = grown;
  capacity_ = wanted;
  return true;
}

int32_t cvoiceset::read_otoini(const char* path, const char* prefix) {
  charset_[0] = '\0';
  FILE* file = openRegularFile(path, "rt");
  if (file == nullptr) return -1;
  touch();
  skipByteOrderMark(file);
  char line[kLineSize];
  while (fgets(line, sizeof line, file) != nullptr) {
    cutLineEnd(line);
    if (line[0] == '\0') continue;
    if (strncmp(line, "#Charset:", 9) == 0 || strncmp(line, "#Charset=", 9) == 0 ||
        strncmp(line, "#charset:", 9) == 0 || strncmp(line, "#charset=", 9) == 0) {
      strcpy_n(charset_, line + 9, kCharsetSize);
      continue;
    }
    char* equals = strchr(line, '=');
    if (equals == nullptr) continue;
    if (!grow()) break;
    *equals = '\0';
    VoiceData* entry = &entries_[count_++];
    memset(entry, 0, sizeof *entry);
    char* backslash = strchr(line, '\\');  // only the first one
    if (backslash != nullptr) *backslash = '/';
    strcpy_n(entry->filename, prefix, sizeof entry->filename);
    strcat_n(entry->filename, line, sizeof entry->filename);
    parseEntryValues(equals + 1, entry);
    // Times past what a render can take are brought in, and said.
    static const char* const kFields[5] = {"offset", "consonant", "cut-off", "pre-utterance", "overlap"};
    float* times[5] = {&entry->offset, &entry->fixed, &entry->blank, &entry->preuttr, &entry->overlap};
    for (int k = 0; k < 5; ++k) {
      clampValue(times[k], ranges::kEntryTime, std::string(path) + ": " + entry->filename, kFields[k], &notices_);
    }
  }
  fclose(file);
  // A table that names no charset is read by its bytes.
  if (charset_[0] == '\0' && fileLooksLikeUtf8(path)) strcpy_n(charset_, "UTF-8", kCharsetSize);
  return count_;
}

int32_t cvoiceset::read_prefixmap(const char* path) {
  FILE* file = openRegularFile(path, "rt");
  if (file == nullptr) return -1;
  memset(prefixMap, 0, sizeof prefixMap);
  skipByteOrderMark(file);
  char line[kLineSize];
  while (fgets(line, sizeof line, file) != nullptr) {
    cutLineEnd(line);
    if (line[0] == '\0') continue;
    if (strncmp(line, "Charset:", 8) == 0) {
      strcpy_n(prefixMap[0].name, line + 8, sizeof prefixMap[0].name);
      continue;
    }
    char* tab = strchr(line, '\t');
    if (tab == nullptr) continue;
    *tab = '\0';
    const int32_t note = name2num(line);
    if (note < 1 || note > 107) continue;
    char* prefix = tab + 1;
    char* second = strchr(prefix, '\t');
    if (second == nullptr) continue;
    *second = '\0';
    strcpy_n(prefixMap[note].prefix, prefix, sizeof prefixMap[note].prefix);
    strcpy_n(prefixMap[note].suffix, second + 1, sizeof prefixMap[note].suffix);
  }
  fclose(file);
  if (prefixMap[0].name[0] == '\0' && fileLooksLikeUtf8(path)) {
    strcpy_n(prefixMap[0].name, "UTF-8", sizeof prefixMap[0].name);
  }
  return 96;
}

int32_t cvoiceset::write_otoini(const char*) { return 0; }

int32_t cvoiceset::wrtie_otoinitxt(const char* path) {
  FILE* file = fopen(path, "wt");
  if (file == nullptr) return 0;
  fprintf(file, "#Charset:UTF8\n");
  for (int32_t i = 0; i < count_; ++i) {
    const VoiceData& e = entries_[i];
    fprintf(file, "%s=%s,%0.1f,%0.1f,%0.1f,%0.1f,%0.1f\n", e.filename, e.alias, e.offset, e.fixed, e.blank, e.preuttr,
            e.overlap);
  }
  const bool ok = fclose(file) == 0;
  return ok ? count_ : 0;
}

int32_t cvoiceset::write_prefixmap(const char* path, const char* charset) {
  static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  FILE* file = fopen(path, "wt");
  if (file == nullptr) return 0;
  if (charset != nullptr) fprintf(file, "Charset:%s\n", charset);
  for (int note = 107; note >= 24; --note) {
    fprintf(file, "%s%d\t%s\t%s\n", kNames[note % 12], note / 12 - 1, prefixMap[note].prefix, prefixMap[note].suffix);
  }
  return fclose(file) == 0 ? 1 : 0;
}

int32_t copendir::read_folder_otoini(const char* folder, cvoiceset* target,
                                     int32_t (cvoiceset::*op)(const char*, const char*)) {
  std::string dir = folder != nullptr ? folder : "";
  if (!dir.empty() && dir.back() == '/') dir.pop_back();
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) {
    log_printf(2, "opendir %s: %s\n", dir.c_str(), strerror(errno));
    return -1;
  }
  int32_t sum = 0;
  CMultiByte cm;
  while (struct dirent* item = readdir(listing)) {
    if (item->d_name[0] == '.') continue;
    const std::string full = dir + "/" + item->d_name;
    struct stat info;
    if (stat(full.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) continue;
    const char* name = isUTF8 ? item->d_name : cm.utf8ToSjis(item->d_name);
    if (name == nullptr) continue;
    char prefix[256];
    strcpy_n(prefix, name, sizeof prefix);
    strcat_n(prefix, "/", sizeof prefix);
    sum += (target->*op)((full + "/oto.ini").c_str(), prefix);
  }
  closedir(listing);
  return sum;
}

// --- Lookup ----------------------------------------------------------------------

void cvoiceset::buildIndex() {
  aliasIndex_.clear();
  dotIndex_.clear();
  aliasIndex_.reserve(static_cast<size_t>(count_));
  dotIndex_.reserve(static_cast<size_t>(count_));
  for (int32_t i = 0; i < count_; ++i) {
    aliasIndex_.emplace(std::string(entries_[i].alias, strnlen(entries_[i].alias, sizeof entries_[i].alias)), i);
    const char* name = entries_[i].filename;
    const size_t length = strnlen(name, sizeof entries_[i].filename);
    for (size_t k = 0; k < length; ++k) {
      if (name[k] == '.') dotIndex_.emplace(std::string(name, k + 1), i);  // keeps the first
    }
  }
  indexed_ = true;
}

const VoiceData* cvoiceset::searchByFilename(const std::string& nameDot, int8_t compareLength) {
  // strncmp over a length held in a signed byte: 128..255 go negative and
  // compare whole strings, 256 and more wrap around.
  const size_t n = static_cast<size_t>(static_cast<long>(compareLength));
  for (int32_t i = 0; i < count_; ++i) {
    if (strncmp(entries_[i].filename, nameDot.c_str(), n) == 0) return &entries_[i];
  }
  return nullptr;
}

VoiceData* cvoiceset::search_voicedata(const char* name) {
  if (name == nullptr) return nullptr;
  if (!indexed_) buildIndex();
  auto alias = aliasIndex_.find(name);
  if (alias != aliasIndex_.end()) return &entries_[alias->second];
  const std::string nameDot = std::string(name) + ".";
  const int8_t compareLength = static_cast<int8_t>(nameDot.size());
  if (compareLength > 0 && static_cast<size_t>(compareLength) == nameDot.size()) {
    auto dot = dotIndex_.find(nameDot);
    return dot != dotIndex_.end() ? &entries_[dot->second] : nullptr;
  }
  return const_cast<VoiceData*>(searchByFilename(nameDot, compareLength));
}

const char* cvoiceset::get_prefix(const char* previous) {
  if (previous == nullptr || previous[0] == '\0' || prefixes_ == nullptr) return defaultPrefix_;
  const size_t length = strlen(previous);
  for (int32_t rule = 0; prefixes_[rule] != nullptr; ++rule) {
    for (const char* ending = endings_[rule]; *ending != '\0'; ending += strlen(ending) + 1) {
      const size_t n = strlen(ending);
      if (n <= length && memcmp(previous + length - n, ending, n) == 0) return prefixes_[rule];
    }
  }
  return defaultPrefix_;
}

char* cvoiceset::getmodifyname(const char* lyric, int32_t noteNum, char* out, int32_t capacity) {
  if (out == nullptr || capacity < 1) return out;
  out[0] = '\0';
  if (lyric == nullptr) return out;
  if (lyric[0] == '?') {
    strcpy_n(out, lyric + 1, capacity);
  } else if (noteNum >= 1 && noteNum <= 95) {
    strcpy_n(out, prefixMap[noteNum].prefix, capacity);
    strcat_n(out, lyric, capacity);
    strcat_n(out, prefixMap[noteNum].suffix, capacity);
  } else {
    strcpy_n(out, lyric, capacity);
  }
  return out;
}

std::string cvoiceset::sungForm(const std::string& lyric, int32_t noteNum) {
  if (lyric.empty()) return lyric;
  if (get_voicedata(nullptr, lyric.c_str(), noteNum) != nullptr && !lastForm_.empty()) return lastForm_;
  std::string lower = lyric;
  for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  const std::string kana = romajiToKana(lower);
  if (!kana.empty() && get_voicedata(nullptr, kana.c_str(), noteNum) != nullptr && lastForm_.empty()) return kana;
  return lyric;
}

VoiceData* cvoiceset::get_voicedata(const char* previous, const char* lyric, int32_t noteNum) {
  lastForm_.clear();
  if (lyric == nullptr) return nullptr;
  if (VoiceData* hit = lookupLyric(previous, lyric, noteNum)) return hit;
  // Banks name their entries in romaji or in kana: a lyric not found is
  // tried once more the other way, through the same search.
  std::string other = kanaToRomaji(lyric);
  if (other.empty()) other = romajiToKana(lyric);
  if (other.empty()) return nullptr;
  VoiceData* hit = lookupLyric(previous, other.c_str(), noteNum);
  if (hit != nullptr) lastForm_ = other;
  return hit;
}

VoiceData* cvoiceset::lookupLyric(const char* previous, const char* lyric, int32_t noteNum) {
  char modified[256];
  getmodifyname(lyric, noteNum, modified, sizeof modified);
  const bool modifiedDiffers = strcmp(modified, lyric) != 0;
  VoiceData* hit = nullptr;
  auto tryName = [&](const char* head, const char* name) {
    const std::string joined = std::string(head != nullptr ? head : "") + name;
    hit = search_voicedata(joined.c_str());
    return hit != nullptr;
  };
  if (previous != nullptr && previous[0] != '\0') {
    const char* prefix = get_prefix(previous);
    if (prefix[0] != '\0') {
      if (tryName(prefix, modified) || tryName(fallbackPrefix_, modified)) return hit;
      if (modifiedDiffers && (tryName(prefix, lyric) || tryName(fallbackPrefix_, lyric))) return hit;
    }
  } else if (hasRules()) {
    if (tryName(headPrefix_, modified)) return hit;
    if (modifiedDiffers && tryName(headPrefix_, lyric)) return hit;
  }
  if (tryName("", modified)) return hit;
  tryName("", lyric);
  return hit;
}

int32_t cvoiceset::name2num(const char* name) {
  static const int kSemitones[7] = {9, 11, 0, 2, 4, 5, 7};  // A..G
  if (name == nullptr || name[0] < 'A' || name[0] > 'G') return 0;
  int32_t semitone = kSemitones[name[0] - 'A'];
  const char* rest = name + 1;
  if (*rest == '#') {
    ++semitone;
    ++rest;
  } else if (*rest == 'b') {
    --semitone;
    ++rest;
  }
  if (*rest == '\0') return 0;
  int octave = 0;
  if (sscanf(rest, "%d", &octave) != 1) return 0;
  const int64_t number = semitone + 12LL * octave + 12;
  return number < INT32_MIN || number > INT32_MAX ? 0 : static_cast<int32_t>(number);
}

void cvoiceset::setVCCMParams(const char* head, const char* fallback, const char* const* prefixes,
                              const char* const* endings, int32_t count) {
  free(headPrefix_);
  free(fallbackPrefix_);
  headPrefix_ = head != nullptr ? strdup(head) : nullptr;
  fallbackPrefix_ = fallback != nullptr ? strdup(fallback) : nullptr;
  freeList(prefixes_);
  freeList(endings_);
  prefixes_ = endings_ = nullptr;
  if (count < 0 || prefixes == nullptr || endings == nullptr) return;
  prefixes_ = static_cast<char**>(calloc(static_cast<size_t>(count) + 1, sizeof(char*)));
  endings_ = static_cast<char**>(calloc(static_cast<size_t>(count) + 1, sizeof(char*)));
  if (prefixes_ == nullptr || endings_ == nullptr) {
    free(prefixes_);
    free(endings_);
    prefixes_ = endings_ = nullptr;
    return;
  }
  for (int32_t i = 0; i < count; ++i) {
    prefixes_[i] = copyText(prefixes[i]);
    // Each item ends in "|"; the bars become NULs and an empty item closes
    // the list (the extra NUL from strdup's terminator).
    const std::string list = endings[i] != nullptr ? endings[i] : "";
    char* copy = static_cast<char*>(calloc(list.size() + 2, 1));
    if (copy != nullptr) {
      memcpy(copy, list.data(), list.size());
      for (char* c = copy; *c != '\0'; ++c) {
        if (*c == '|') *c = '\0';
      }
    }
    endings_[i] = copy != nullptr ? copy : copyText("");
  }
}

// --- Entries -----------------------------------------------------------------------

VoiceData* cvoiceset::getVoiceEntry(int32_t index) {
  return (index >= 0 && index < count_) ? &entries_[index] : nullptr;
}

const char* cvoiceset::get_filename(int32_t index) {
  VoiceData* entry = getVoiceEntry(index);
  return entry != nullptr ? entry->filename : nullptr;
}

const char* cvoiceset::get_alias(int32_t index) {
  VoiceData* entry = getVoiceEntry(index);
  return entry != nullptr ? entry->alias : nullptr;
}

void cvoiceset::set_filename(int32_t index, const char* text) {
  VoiceData* entry = getVoiceEntry(index);
  if (entry == nullptr) return;
  strcpy_n(entry->filename, text != nullptr ? text : "", 256);
  touch();
}

void cvoiceset::set_alias(int32_t index, const char* text) {
  VoiceData* entry = getVoiceEntry(index);
  if (entry == nullptr) return;
  strcpy_n(entry->alias, text != nullptr ? text : "", 32);
  touch();
}

const char* cvoiceset::set_charset(const char* text) {
  strcpy_n(charset_, text != nullptr ? text : "", kCharsetSize);
  return charset_;
}

int32_t cvoiceset::add_item(const VoiceData* record) { return insert_item(count_, record); }

int32_t cvoiceset::insert_item(int32_t index, const VoiceData* record) {
  if (record == nullptr) return -1;
  VoiceData copy;
  memcpy(&copy, record, sizeof copy);  // record may live in the array
  (void)index;                         // the larger of index and the count: always the end
  if (!grow()) return -1;
  memcpy(&entries_[count_], &copy, sizeof copy);
  touch();
  return count_++;
}

VoiceData* cvoiceset::remove_item(int32_t index, VoiceData* out) {
  if (out == nullptr) return nullptr;
  if (index < 0 || index >= count_) {
    memset(out, 0, sizeof *out);
    return out;
  }
  memcpy(out, &entries_[index], sizeof *out);
  memmove(&entries_[index], &entries_[index + 1], sizeof(VoiceData) * static_cast<size_t>(count_ - index - 1));
  --count_;
  touch();
  return out;
}

VoiceData* cvoiceset::remove_item(const VoiceData* record, VoiceData* out) {
  const int32_t index = (record != nullptr && record >= entries_ && record < entries_ + count_)
                            ? static_cast<int32_t>(record - entries_)
                            : -1;
  return remove_item(index, out);
}

void cvoiceset::free_otoini() {
  free(entries_);
  entries_ = nullptr;
  count_ = 0;
  capacity_ = 0;
  touch();
}
