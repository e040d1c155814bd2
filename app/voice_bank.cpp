#include "app/voice_bank.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>

#include "app/project_file.h"
#include "editing/noteman.h"
#include "engine/ranges.h"
#include "render/wavefile.h"
#include "support/userdirs.h"
#include "voicebank/freqtable.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

namespace {

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string lastComponent(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string resolveVoiceBank(const std::string& project, const std::string& named, bool* fromElsewhere) {
  std::string bank = named;
  const size_t cut = project.rfind('/');
  const std::string projectFolder = cut == std::string::npos ? "." : project.substr(0, cut == 0 ? 1 : cut);
  const std::string userBanks = userFolder(UserFolder::kVoice);
  if (fromElsewhere != nullptr) *fromElsewhere = false;
  if (bank.empty() || bank == "/") return std::string();
  if (bank.compare(0, 7, "%VOICE%") == 0) {
    // The user's voice bank folder, as other tools write it.
    bank = userBanks + "/" + bank.substr(7);
  } else if (bank.size() > 2 && isalpha(static_cast<unsigned char>(bank[0])) && bank[1] == ':') {
    // A Windows path: its last folder, beside the project or among the
    // user's banks.
    const std::string name = lastComponent(bank);
    bank = isFolder(projectFolder + "/" + name) ? projectFolder + "/" + name : userBanks + "/" + name;
    if (fromElsewhere != nullptr) *fromElsewhere = true;
  } else if (!bank.empty() && bank[0] != '/') {
    std::string name = bank;
    while (!name.empty() && name.back() == '/') name.pop_back();
    bank = projectFolder + "/" + bank;
    // A bare name not found beside the project is a bank of the user's.
    if (name.find('/') == std::string::npos && !name.empty() && !isFolder(bank) && isFolder(userBanks + "/" + name)) {
      bank = userBanks + "/" + name;
    }
  }
  return bank;
}

bool loadVoiceBank(CNoteMan& manager, const std::string& project, const std::string& option, const char* command) {
  ctonm2& engine = *manager.engine();
  const std::string named = option.empty() ? std::string(engine.voiceDir) : option;
  bool announce = false;
  const std::string bank = resolveVoiceBank(project, named, &announce);
  engine.set_voiceDir(bank.c_str());
  if (bank.empty() || manager.readVoiceset() < 1) {
    fprintf(stderr, "tona %s: no voice bank at '%s'\n", command, bank.empty() ? "(none given)" : engine.voiceDir);
    return false;
  }
  if (announce) fprintf(stderr, "voice bank '%s' is taken from '%s'\n", named.c_str(), engine.voiceDir);
  if (engine.voiceset != nullptr) printNotices(command, engine.voiceDir, engine.voiceset->notices());
  return true;
}

int warnUnloadableSamples(CNoteMan& manager, int first, int last) {
  ctonm2& engine = *manager.engine();
  std::map<std::string, int> notes;  // sample -> notes singing it
  for (int i = std::max(first, 0); i <= last && i < engine.noteCount; ++i) {
    // The voice entry's file name is taken from the bank's folder.
    const NoteData& note = engine.notes[i];
    if (note.VoiceFile != nullptr && !ctonm2::is_r(note.Lyric)) ++notes[std::string(engine.voiceDir) + note.VoiceFile];
  }
  int failed = 0;
  for (const auto& [path, count] : notes) {
    if (access(path.c_str(), R_OK) != 0) {
      fprintf(stderr, "warning: sample '%s' cannot be read: %s; %d notes stay silent\n", path.c_str(), strerror(errno),
              count);
      ++failed;
      continue;
    }
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && info.st_size > static_cast<off_t>(kMaxSampleDataBytes) + (1 << 20)) {
      fprintf(stderr, "warning: sample '%s' is over 256 MiB, longer than any voice; %d notes stay silent\n",
              path.c_str(), count);
      ++failed;
      continue;
    }
    const bool aiff = path.size() >= 5 && path.compare(path.size() - 5, 5, ".aiff") == 0;
    WaveFormat format;
    memset(&format, 0, sizeof format);
    int32_t bytes = 0;
    int16_t* words = aiff ? loadAiffFile(path.c_str(), &format, 0, &bytes) : loadWaveFile(path.c_str(), &format, 0, &bytes);
    if (words == nullptr || format.channels < 1 || format.sampleRate == 0) {
      fprintf(stderr, "warning: sample '%s' is not a readable WAV (PCM or floating point) or 16-bit AIFF file; %d notes stay silent\n",
              path.c_str(), count);
      ++failed;
    }
    free(words);
  }
  return failed;
}

int dropImpossibleNotes(CNoteMan& manager) {
  ctonm2& engine = *manager.engine();
  const std::vector<int> sections = sectionNumbers(engine);
  int dropped = 0;
  for (int i = 0; i < engine.noteCount; ++i) {
    NoteData& note = engine.notes[i];
    if (sections[static_cast<size_t>(i)] < 0 || ctonm2::is_r(note.Lyric)) continue;
    const bool badLength = note.Length < 0,
               badNumber = note.NoteNum < ranges::kNoteNum.low || note.NoteNum > ranges::kNoteNum.high;
    if (!badLength && !badNumber) continue;
    fprintf(stderr, "warning: note [#%04d] '%s': %s; left out\n", sections[static_cast<size_t>(i)], note.Lyric,
            badLength ? ("length " + std::to_string(note.Length) + " is negative").c_str()
                      : ("note number " + std::to_string(note.NoteNum) + " is outside 0..127").c_str());
    strcpy(note.Lyric, "R");
    ++dropped;
  }
  return dropped;
}

std::string bankFileProblem(CNoteMan& manager, const std::string& output) {
  struct stat out;
  if (output == "-" || stat(output.c_str(), &out) != 0) return std::string();
  ctonm2& engine = *manager.engine();
  cvoiceset* set = engine.voiceset;
  for (int32_t row = 0; set != nullptr && row < set->count(); ++row) {
    const char* file = set->get_filename(row);
    if (file == nullptr) continue;
    const std::string sample = std::string(engine.voiceDir) + file;
    for (const std::string& path : {sample, frequencyTablePath(sample.c_str(), "frq"),
                                    frequencyTablePath(sample.c_str(), "frt"), spectrumFilePath(sample.c_str())}) {
      struct stat in;
      if (stat(path.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
        return "the output '" + output + "' is '" + path + "' of the voice bank; nothing written";
      }
    }
  }
  return std::string();
}
