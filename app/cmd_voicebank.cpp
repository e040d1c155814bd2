// tona voicebank list | info DIR | lookup DIR LYRIC [--note N] [--prev LYRIC]

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/subcommands.h"
#include "support/userdirs.h"
#include "voicebank/connective.h"
#include "voicebank/voiceprofile.h"
#include "voicebank/voiceset.h"

const char kVoicebankUsage[] =
    "usage: tona voicebank list\n"
    "       tona voicebank info DIR\n"
    "       tona voicebank lookup DIR LYRIC [--note NAME|NUMBER] [--prev LYRIC]\n"
    "\n"
    "list    lists the voice banks of the per-user voice folder with their names\n"
    "        (a project may name one of them by its folder's name alone).\n"
    "info    shows a voice bank: its name, picture and sample, charset, entries\n"
    "        per folder, prefix map, and entries whose sample file is missing.\n"
    "lookup  shows the entry a note with LYRIC would sing, after a note sung\n"
    "        --prev (default: none), at note --note (default C4 = 60). A lyric\n"
    "        may begin with a dash (\"- a\"); after \"--\" every argument is one:\n"
    "        tona voicebank lookup BANK -- -a\n"
    "Lyrics are UTF-8; Shift_JIS banks are converted.\n";

namespace {

const Command& voicebankCommand() { return *findCommand("voicebank"); }

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

std::string withSlash(std::string folder) {
  if (folder.empty() || folder.back() != '/') folder += '/';
  return folder;
}

bool checkFolder(const std::string& folder) {
  if (isFolder(folder)) return true;
  fprintf(stderr, "tona voicebank: cannot open folder '%s': %s\n", folder.c_str(),
          exists(folder) ? "not a folder" : strerror(ENOENT));
  return false;
}

// Loads a bank as a project would: entries, prefix map, UTF-8 texts,
// connective rules. Prints the reason and returns false when it cannot.
bool loadBank(const std::string& folder, cvoiceset* voiceset) {
  if (!checkFolder(folder)) return false;
  if (voiceset->read_voiceset(folder.c_str()) < 1 && voiceset->count() == 0) {
    fprintf(stderr, "tona voicebank: no oto.ini or oto_ini.txt entries in '%s'\n", folder.c_str());
    return false;
  }
  convertVoicesetTexts(voiceset);
  installConnectiveRules(voiceset);
  return true;
}

int runInfo(const std::string& folder) {
  // An empty bank still has a profile worth showing: only a missing folder fails.
  if (!checkFolder(folder)) return kExitFailure;
  const std::string dir = withSlash(folder);
  cvoiceset voiceset;
  voiceset.read_voiceset(dir.c_str());
  const std::string charsetRead = voiceset.charset();
  convertVoicesetTexts(&voiceset);

  CVoiceProfile profile(dir.c_str());
  printf("name:     %s\n", profile.voiceName());
  printf("image:    %s\n", profile.imageFilePath() != nullptr ? profile.imageFilePath() : "(none)");
  printf("sample:   %s\n", profile.samplePath() != nullptr ? profile.samplePath() : "(none)");
  printf("charset:  %s\n", charsetRead.empty() ? "(none: Shift_JIS)" : charsetRead.c_str());

  const bool ownTable = exists(dir + "oto_ini.txt");
  printf("entries:  %d%s\n", voiceset.count(), ownTable ? " (from oto_ini.txt)" : "");
  // Entries per folder, by the subfolder part of their file names.
  std::map<std::string, int> perFolder;
  std::vector<std::string> missing;
  for (int32_t i = 0; i < voiceset.count(); ++i) {
    const std::string name = voiceset.get_filename(i);
    const size_t slash = name.find('/');
    const std::string sub = slash == std::string::npos ? "" : name.substr(0, slash);
    perFolder[ownTable || sub.empty() || !isFolder(dir + sub) ? std::string(".") : sub] += 1;
    if (!exists(dir + name)) missing.push_back(name + " (" + voiceset.get_alias(i) + ")");
  }
  for (const auto& [sub, count] : perFolder) printf("  %-20s %d\n", sub == "." ? "(top)" : sub.c_str(), count);

  int rows = 0;
  for (int note = 1; note < cvoiceset::kPrefixRows; ++note) {
    const PrefixMapEntry& row = voiceset.prefixMap[note];
    if (row.prefix[0] == '\0' && row.suffix[0] == '\0') continue;
    static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    if (rows++ == 0) printf("prefix map:\n");
    printf("  %s%d\t\"%s\"\t\"%s\"\n", kNames[note % 12], note / 12 - 1, row.prefix, row.suffix);
  }
  if (!missing.empty()) {
    fprintf(stderr, "warning: %zu entries name a missing sample file:\n", missing.size());
    for (const std::string& name : missing) fprintf(stderr, "  %s\n", name.c_str());
  }
  return kExitOk;
}

int runLookup(const std::string& folder, const std::string& lyric, const std::string& noteText,
              const std::string& previous) {
  long note = 60;
  if (!noteText.empty() && !parseInt(noteText, 0, 127, &note)) {
    note = cvoiceset::name2num(noteText.c_str());
    if (note == 0 && noteText != "C-1") {
      return usageError(voicebankCommand(), ("not a note: '" + noteText + "'").c_str());
    }
  }
  cvoiceset voiceset;
  if (!loadBank(withSlash(folder), &voiceset)) return kExitFailure;
  const VoiceData* entry =
      voiceset.get_voicedata(previous.empty() ? nullptr : previous.c_str(), lyric.c_str(), static_cast<int32_t>(note));
  if (entry == nullptr) {
    fprintf(stderr, "tona voicebank: not found: '%s' at note %ld\n", lyric.c_str(), note);
    return kExitFailure;
  }
  printf("file:        %s\n", entry->filename);
  printf("alias:       %s\n", entry->alias);
  if (!voiceset.lastLookupForm().empty()) printf("found as:    %s\n", voiceset.lastLookupForm().c_str());
  printf("offset:      %.1f\n", entry->offset);
  printf("consonant:   %.1f\n", entry->fixed);
  printf("blank:       %.1f\n", entry->blank);
  printf("preutter:    %.1f\n", entry->preuttr);
  printf("overlap:     %.1f\n", entry->overlap);
  return kExitOk;
}

}  // namespace

namespace {

int runList() {
  const std::string root = userFolder(UserFolder::kVoice);
  std::vector<std::string> names;
  if (DIR* listing = opendir(root.c_str())) {
    while (struct dirent* item = readdir(listing)) {
      if (item->d_name[0] != '.' && isFolder(root + "/" + item->d_name)) names.push_back(item->d_name);
    }
    closedir(listing);
  }
  std::sort(names.begin(), names.end());
  printf("voice banks in %s:\n", root.c_str());
  for (const std::string& name : names) {
    const CVoiceProfile profile((root + "/" + name).c_str());
    printf("  %-24s %s\n", name.c_str(), profile.voiceName());
  }
  if (names.empty()) printf("  (none)\n");
  return kExitOk;
}

}  // namespace

int runVoicebank(int argc, char** argv) {
  const Command& command = voicebankCommand();
  std::string note, previous;
  ArgParser parser(command);
  parser.option("--note", &note);
  parser.option("--prev", &previous);
  std::vector<std::string> args;
  int status = parser.parse(argc, argv, &args, 1, 3);
  if (status >= 0) return status;
  if (args[0] == "list") {
    if (args.size() != 1) return usageError(command, "list takes no folder");
    return runList();
  }
  if (args[0] == "info") {
    if (args.size() != 2) return usageError(command, "info takes one folder");
    if (!note.empty() || !previous.empty()) return usageError(command, "info takes no options");
    return runInfo(args[1]);
  }
  if (args[0] == "lookup") {
    if (args.size() != 3) return usageError(command, "lookup takes a folder and a lyric");
    return runLookup(args[1], args[2], note, previous);
  }
  return usageError(command, ("unknown action '" + args[0] + "'").c_str());
}
