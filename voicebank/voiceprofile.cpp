#include "voicebank/voiceprofile.h"

#include <cstdio>
#include <cstring>

#include "support/multibyte.h"
#include "support/regular_file.h"
#include "support/textfile.h"

namespace {

constexpr int kLineSize = 1024;

void cutLineEnd(char* line) {
  char* cr = strchr(line, '\r');
  if (cr != nullptr) *cr = '\0';
  char* lf = strchr(line, '\n');
  if (lf != nullptr) *lf = '\0';
}

bool startsWith(const char* text, const char* head) { return strncmp(text, head, strlen(head)) == 0; }

// A Shift_JIS line as UTF-8: what converts (never raw Shift_JIS bytes).
const char* sjisText(CMultiByte& cm, const char* text) {
  const char* converted = cm.sjisToUtf8(text);
  return converted != nullptr ? converted : "";
}

}  // namespace

CVoiceProfile::CVoiceProfile(const char* folder) {
  if (folder == nullptr || folder[0] == '\0') return;
  folder_ = folder;
  if (folder_.c_str()[folder_.length() - 1] != '/') folder_ += "/";

  const cstr profilePath = folder_ + "character.txt";
  FILE* file = openRegularFile(profilePath.c_str(), "rt");
  if (file != nullptr) {
    skipByteOrderMark(file);
    bool utf8 = fileLooksLikeUtf8(profilePath.c_str());  // a charset line may still say so
    CMultiByte cm;
    char line[kLineSize];
    while (fgets(line, sizeof line, file) != nullptr) {
      cutLineEnd(line);
      const char* value = strchr(line, '=');
      if (value == nullptr || value[1] == '\0') continue;
      ++value;
      if (startsWith(line, "image=")) {
        imagePath_ = folder_ + value;
      } else if (startsWith(line, "charset=") || startsWith(line, "Charset=")) {
        // Only four characters are compared: any "utf-..." counts.
        if (strncmp(value, "utf8", 4) == 0 || strncmp(value, "UTF8", 4) == 0 ||
            strncmp(value, "utf-", 4) == 0 || strncmp(value, "UTF-", 4) == 0) {
          utf8 = true;
        }
      } else if (startsWith(line, "name=")) {
        voiceName_ = utf8 ? value : sjisText(cm, value);
      } else if (startsWith(line, "sample=")) {
        samplePath_ = folder_ + (utf8 ? value : sjisText(cm, value));
      }
    }
    fclose(file);
  }
  if (voiceName_.isNull()) {
    cstr trimmed = folder_.substr(0, static_cast<int>(folder_.length()) - 1);
    voiceName_ = trimmed.lastComponentBySeparator('/');
  }
  valid_ = 1;
}

const char* CVoiceProfile::readLines(const char* name, bool skipKeys, cstr* cache) {
  *cache = "";
  if (folder_.isNull()) return cache->c_str();
  const cstr path = folder_ + name;
  FILE* file = openRegularFile(path.c_str(), "rt");
  if (file == nullptr) return cache->c_str();
  skipByteOrderMark(file);
  CMultiByte cm;
  const bool bytesSayUtf8 = fileLooksLikeUtf8(path.c_str());
  bool utf8 = false;
  bool first = true;
  char line[kLineSize];
  while (fgets(line, sizeof line, file) != nullptr) {
    cutLineEnd(line);
    if (first) {
      utf8 = bytesSayUtf8 || strstr(line, "UTF8") != nullptr || strstr(line, "utf8") != nullptr;
      first = false;
    }
    if (skipKeys && (startsWith(line, "image=") || startsWith(line, "name=") || startsWith(line, "sample="))) {
      continue;
    }
    *cache += utf8 ? line : sjisText(cm, line);
    *cache += "\n";
  }
  fclose(file);
  return cache->c_str();
}

const char* CVoiceProfile::readmeText() { return readLines("readme.txt", false, &readme_); }

const char* CVoiceProfile::profileText() { return readLines("character.txt", true, &profile_); }
