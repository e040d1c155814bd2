#include "render/cache.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "editing/noteserial.h"
#include "support/log.h"
#include "support/md5.h"
#include "support/regular_file.h"
#include "support/safe_output.h"
#include "support/userdirs.h"
#include "voicebank/voiceset.h"

namespace {

// What the note arrangement decided for the note, beyond the note itself.
struct RenderTiming {
  float notelen, truelen, preuttr, overlap, stp, stptrim, tempo;
  float entry[5];  // offset, consonant, blank, pre-utterance, overlap
};

std::string soundName(const NoteData* note) {
  if (note->VoiceFile == nullptr) return note->Lyric;
  std::string name = note->VoiceFile;
  for (char& c : name) {
    if (c == '/') c = '_';
  }
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos) name.erase(dot);
  return name;
}

// Whether a name is one the cache gives its files: "INDEX_SOUND_DIGEST.raw",
// the digest 22 base-62 digits.
bool isCacheName(const std::string& name) {
  const size_t suffix = name.size() >= 4 ? name.size() - 4 : 0;
  if (name.size() < 2 + 1 + 22 + 4 || name.compare(suffix, 4, ".raw") != 0) return false;
  const size_t digest = suffix - 22;
  if (name[digest - 1] != '_') return false;
  for (size_t k = digest; k < suffix; ++k) {
    if (!isalnum(static_cast<unsigned char>(name[k]))) return false;
  }
  size_t k = 0;
  while (k < name.size() && isdigit(static_cast<unsigned char>(name[k]))) ++k;
  return k > 0 && name[k] == '_' && k < digest - 1;
}

// The cache's own files only: names of its form that are regular files
// in the folder itself, never a link out of it.
template <class Visit>
void forEachCacheFile(Visit visit) {
  const std::string dir = CCacheSys::folder();
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return;
  while (struct dirent* item = readdir(listing)) {
    const std::string name = item->d_name;
    if (!isCacheName(name)) continue;
    const std::string path = dir + "/" + name;
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size % 8 != 0) continue;
    visit(path, name);
  }
  closedir(listing);
}

}  // namespace

std::string CCacheSys::folder() { return userFolder(UserFolder::kCache); }

// Changes whenever the resampler's output for the same note changes, so
// that audio cached by an older version is never played again.
constexpr char kResamplerVersion[] = "resampler 4: periods tracked on the signal, not taken from the table as they are";

std::string CCacheSys::getCacheName(int32_t index, const NoteData* note) {
  Md5 md5;
  md5.update(kResamplerVersion, sizeof kResamplerVersion);
  std::vector<uint8_t> packed(static_cast<size_t>(CNoteSerial::serialLength(note)));
  CNoteSerial::serialize(note, packed.data());
  md5.update(packed.data(), packed.size());
  if (note->_pitch != nullptr && note->_pitchlen > 0) {
    md5.update(note->_pitch, sizeof(float) * static_cast<size_t>(note->_pitchlen));
  }
  RenderTiming timing = {note->_notelen, note->_truelen, note->_preuttr, note->_overlap, note->_stp, note->stptrim, note->_tempo,
            {0, 0, 0, 0, 0}};
  if (note->VoiceFile != nullptr) {
    const VoiceData* entry = reinterpret_cast<const VoiceData*>(note->VoiceFile);
    const float values[5] = {entry->offset, entry->fixed, entry->blank, entry->preuttr, entry->overlap};
    memcpy(timing.entry, values, sizeof values);
  }
  md5.update(&timing, sizeof timing);
  uint8_t digest[16];
  md5.finish(digest);
  const std::string digestText = base62(digest);
  log_printf(5, "cache name: %d_%s_%s.raw\n", index, soundName(note).c_str(), digestText.c_str());
  return std::to_string(index) + "_" + soundName(note) + "_" + digestText + ".raw";
}

bool CCacheSys::isCached(int32_t index, const NoteData* note) {
  struct stat info;
  return stat((folder() + "/" + getCacheName(index, note)).c_str(), &info) == 0;
}

double* CCacheSys::getCache(int32_t index, const NoteData* note, int32_t* size) {
  if (size != nullptr) *size = 0;
  FILE* file = openRegularFile((folder() + "/" + getCacheName(index, note)).c_str(), "rb");
  if (file == nullptr) return nullptr;
  struct stat info;
  double* data = nullptr;
  if (fstat(fileno(file), &info) == 0 && info.st_size > 0 && info.st_size < (1LL << 31)) {
    const size_t bytes = static_cast<size_t>(info.st_size);
    data = static_cast<double*>(malloc(bytes));
    if (data != nullptr && fread(data, 1, bytes, file) == bytes) {
      if (size != nullptr) *size = static_cast<int32_t>(bytes);
    } else {
      free(data);
      data = nullptr;
    }
  }
  fclose(file);
  return data;
}

int32_t CCacheSys::putCache(int32_t index, const NoteData* note, const double* data, int32_t size) {
  const std::string dir = folder();
  if (!makeFolders(dir) || data == nullptr || size <= 0) return -1;
  const std::string path = dir + "/" + getCacheName(index, note);
  deleteCache(index);
  // Written under a name of its own first, so that no half file is ever
  // read, even with two renders filling the same cache.
  SafeOutput out(path, false);
  FILE* file = out.path().empty() ? nullptr : fopen(out.path().c_str(), "wb");
  if (file == nullptr) return -1;
  const bool written = fwrite(data, 1, static_cast<size_t>(size), file) == static_cast<size_t>(size);
  return fclose(file) == 0 && written && out.commit() ? 0 : -1;
}

void CCacheSys::deleteCache(int32_t index) {
  const std::string prefix = std::to_string(index) + "_";
  forEachCacheFile([&](const std::string& path, const std::string& name) {
    if (name.compare(0, prefix.size(), prefix) == 0) unlink(path.c_str());
  });
}

void CCacheSys::deleteCacheAll() {
  forEachCacheFile([](const std::string& path, const std::string&) { unlink(path.c_str()); });
}

void CCacheSys::usage(int64_t* files, int64_t* bytes) {
  int64_t count = 0, total = 0;
  forEachCacheFile([&](const std::string& path, const std::string&) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    ++count;
    total += info.st_size;
  });
  if (files != nullptr) *files = count;
  if (bytes != nullptr) *bytes = total;
}

int64_t CCacheSys::trim(int64_t limit) {
  struct Entry {
    std::string path;
    int64_t bytes;
    struct timespec changed;
  };
  std::vector<Entry> entries;
  int64_t total = 0;
  forEachCacheFile([&](const std::string& path, const std::string&) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    entries.push_back({path, info.st_size, info.st_mtim});
    total += info.st_size;
  });
  if (total <= limit) return 0;
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.changed.tv_sec != b.changed.tv_sec ? a.changed.tv_sec < b.changed.tv_sec
                                                : a.changed.tv_nsec < b.changed.tv_nsec;
  });
  int64_t removed = 0;
  for (const Entry& entry : entries) {
    if (total - removed <= limit) break;
    if (unlink(entry.path.c_str()) == 0) removed += entry.bytes;
  }
  return removed;
}
