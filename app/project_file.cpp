#include "app/project_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "editing/noteman.h"
#include "support/regular_file.h"
#include "support/userdirs.h"

std::string notAProject(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return "it is a folder";
  FILE* file = openRegularFile(path.c_str(), "rb");
  if (file == nullptr) return "";  // the open below says why
  std::vector<char> head(65536);
  const size_t n = fread(head.data(), 1, head.size(), file);
  fclose(file);
  if (n == 0) return "the file is empty";
  if (memchr(head.data(), '\0', n) != nullptr) return "it is not a text file";
  const std::string text(head.data(), n);
  if (text.find("[#SETTING]") != std::string::npos) return "";
  for (size_t at = text.find("[#"); at != std::string::npos; at = text.find("[#", at + 2)) {
    if (at + 2 < text.size() && text[at + 2] >= '0' && text[at + 2] <= '9') return "";
  }
  return "it has no [#SETTING] section and no note section";
}

bool parseCharset(const std::string& text, std::string* charset) {
  std::string name;
  for (char c : text) name += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (name.empty()) return charset->clear(), true;
  if (name == "utf-8" || name == "utf8") return *charset = "utf-8", true;
  if (name == "shift_jis" || name == "shift-jis" || name == "sjis" || name == "cp932") return *charset = "shift_jis", true;
  return false;
}

bool openProjectFile(CNoteMan& manager, const std::string& path, const char* command, const std::string& charset) {
  const std::string reason = notAProject(path);
  if (!reason.empty()) {
    fprintf(stderr, "tona %s: not a project: '%s': %s\n", command, path.c_str(), reason.c_str());
    return false;
  }
  const std::string voices = userFolder(UserFolder::kVoice);
  manager.setForcedCharset(charset);
  errno = 0;
  if (manager.openSnt(path.c_str(), voices.c_str()) < 0) {
    fprintf(stderr, "tona %s: cannot open '%s': %s\n", command, path.c_str(), strerror(errno != 0 ? errno : EIO));
    return false;
  }
  printNotices(command, path, manager.engine()->readNotices);
  return true;
}

void printNotices(const char* command, const std::string& source, const std::vector<std::string>& notices) {
  constexpr size_t kShown = 20;
  for (size_t k = 0; k < notices.size() && k < kShown; ++k) {
    fprintf(stderr, "tona %s: '%s': %s\n", command, source.c_str(), notices[k].c_str());
  }
  if (notices.size() > kShown) {
    fprintf(stderr, "tona %s: '%s': %zu more values brought into range\n", command, source.c_str(),
            notices.size() - kShown);
  }
}

std::vector<int> sectionNumbers(const ctonm2& engine) {
  std::vector<int> sections(static_cast<size_t>(std::max(engine.noteCount, 0)), -1);
  int section = 0;
  for (int i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    const NoteData* next = i + 1 < engine.noteCount ? &engine.notes[i + 1] : nullptr;
    const bool added = note.Lyric[0] == '\0' && note.Length == 0 && note.Tempo > 0.0f && next != nullptr &&
                       next->Delta == 0 && !ctonm2::is_r(next->Lyric);
    if (!added) sections[static_cast<size_t>(i)] = section++;
  }
  return sections;
}
