// tona info PROJECT [--dump]
// tona convert IN OUT [--form 1.2|2.0] [--charset utf-8|shift_jis]

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/progress.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "support/multibyte.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

const char kInfoUsage[] =
    "usage: tona info PROJECT [--dump] [--charset utf-8|shift_jis]\n"
    "\n"
    "Shows a project's settings and its notes: each by its section in the\n"
    "file, with its start (ticks and m:ss.s), its length (ticks and seconds),\n"
    "lyric, note and tempo change; then the song's length. --dump prints\n"
    "every field of every record as the program holds it. A project that\n"
    "names no charset is read by its bytes; --charset forces one.\n";

const char kConvertUsage[] =
    "usage: tona convert IN OUT [--form 1.2|2.0] [--charset utf-8|shift_jis]\n"
    "                    [--from-charset utf-8|shift_jis]\n"
    "\n"
    "Reads the project IN and writes it to OUT in the form asked (default:\n"
    "the form read) and charset (default: the charset read; the 1.2 form is\n"
    "always Shift_JIS). What the output cannot hold is listed on stderr.\n"
    "IN is read in the charset it names, by its bytes when it names none,\n"
    "or in the one --from-charset forces.\n";

namespace {

std::string formName(int32_t version) {
  if (version == 120) return "1.2";
  if (version == 200) return "2.0";
  char text[32];
  snprintf(text, sizeof text, "%d.%d (read as 1.2)", version / 100, version / 10 % 10);
  return text;
}

std::string noteName(int number) {
  static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  if (number < 0 || number > 127) return "?";
  return std::string(kNames[number % 12]) + std::to_string(number / 12 - 1);
}

// Columns a UTF-8 text takes on a terminal: East Asian wide characters
// (kana, kanji, full-width forms) take two.
size_t displayWidth(const std::string& text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    uint32_t code = length == 1 ? lead : lead & (0x3F >> (length - 1));
    for (size_t k = 1; k < length && i + k < text.size(); ++k) code = (code << 6) | (text[i + k] & 0x3F);
    const bool wide = (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
                      (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
                      (code >= 0xFE30 && code <= 0xFE4F) || (code >= 0xFF00 && code <= 0xFF60) ||
                      (code >= 0xFFE0 && code <= 0xFFE6);
    width += wide ? 2 : 1;
    i += length;
  }
  return width;
}


std::string timeSignatureText(CScaleMan& scale) {
  std::vector<char> text(static_cast<size_t>(scale.serialize2text(nullptr, 0)));
  scale.serialize2text(text.data(), static_cast<int32_t>(text.size()));
  return text.data();
}

}  // namespace

int runInfo(int argc, char** argv) {
  const Command& command = *findCommand("info");
  bool dump = false;
  std::string charsetText, charset;
  ArgParser parser(command);
  parser.flag("--dump", &dump);
  parser.option("--charset", &charsetText);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 1, 1);
  if (status >= 0) return status;

  CScaleMan scale;
  CNoteMan manager(&scale);
  errno = 0;
  if (!parseCharset(charsetText, &charset)) return usageError(command, "--charset is utf-8 or shift_jis");
  if (!openProjectFile(manager, args[0], "info", charset)) return kExitFailure;
  ctonm2& engine = *manager.engine();
  if (dump) {
    for (int32_t i = 0; i < engine.noteCount; ++i) ctonm2::printNoteData(stdout, &engine.notes[i]);
    return kExitOk;
  }
  printf("form:            %s\n", formName(engine.sntVersion).c_str());
  printf("charset:         %s\n", engine.charset[0] != '\0' ? engine.charset : "(none: Shift_JIS)");
  printf("tempo:           %.2f\n", engine.tempo);
  printf("project name:    %s\n", engine.projectName);
  printf("voice folder:    %s\n", engine.voiceDir);
  printf("output file:     %s\n", engine.outfile);
  printf("flags:           %s\n", engine.flags);
  printf("time signatures: %s\n", timeSignatureText(scale).c_str());
  // Each note by its section in the file; a tempo change the reader keeps
  // on a record of its own is shown on its note; a rest with its length up
  // to the next note.
  const std::vector<int> sections = sectionNumbers(engine);
  int shown = 0;
  for (int section : sections) shown += section >= 0;
  printf("notes:           %d\n", shown);
  if (shown > 0) {
    printf("%-8s %8s %9s %7s %7s  %-16s %-9s %s\n", "section", "start", "at", "length", "secs", "lyric", "note",
           "tempo");
  }
  long long start = 0, songEnd = 0;
  float pendingTempo = 0.0f;
  const TickTimeline timeline(engine);  // the time of each position without walking the song each time
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    start += note.Delta;
    if (sections[static_cast<size_t>(i)] < 0) {
      pendingTempo = note.Tempo;
      continue;
    }
    const bool rest = ctonm2::is_r(note.Lyric);
    long long length = note.Length;
    if (rest && i + 1 < engine.noteCount) length = engine.notes[i + 1].Delta;  // the reader keeps rests at 0
    songEnd = std::max(songEnd, start + length);
    const float tempo = note.Tempo != 0.0f ? note.Tempo : pendingTempo;
    pendingTempo = 0.0f;
    const double at = timeline.msec(start), end = timeline.msec(start + length);
    char tempoText[32] = "";
    if (tempo != 0.0f) snprintf(tempoText, sizeof tempoText, "%.2f", tempo);
    // Pad the lyric by its width on screen, not its bytes, so kana line up.
    std::string lyric = note.Lyric[0] == '\0' ? "(rest)" : note.Lyric;
    const size_t columns = displayWidth(lyric);
    if (columns < 16) lyric.append(16 - columns, ' ');
    char section[16];
    snprintf(section, sizeof section, "[#%04d]", sections[static_cast<size_t>(i)]);
    printf("%-8s %8lld %9s %7lld %7.2f  %s %-4d%-5s %s\n", section, start, clockText(at).c_str(), length,
           (end - at) / 1000.0, lyric.c_str(), note.NoteNum, rest ? "" : noteName(note.NoteNum).c_str(), tempoText);
  }
  printf("length:          %s\n", clockText(timeline.msec(songEnd)).c_str());  // the end of the last note
  return kExitOk;
}

namespace {

// What the chosen output cannot hold, one warning line each.
void warnLosses(ctonm2& engine, CScaleMan& scale, bool oldForm, bool shiftJis) {
  if (oldForm) {
    bool labels = false, layers = false, slots = false, trims = false;
    int overlaps = 0;
    for (int32_t i = 0; i < engine.noteCount; ++i) {
      const NoteData& note = engine.notes[i];
      labels |= note.Label[0] != '\0';
      layers |= note.layer > 0;
      trims |= note.stptrim != 0.0f;
      for (int k = 12; k < 16; ++k) slots |= note.Envelope[k] != 0.0f;
      if (i + 1 < engine.noteCount && note.Length > engine.notes[i + 1].Delta) ++overlaps;
    }
    if (timeSignatureText(scale) != "(4/4/0),") fprintf(stderr, "warning: the 1.2 form drops the time signatures\n");
    if (labels) fprintf(stderr, "warning: the 1.2 form drops the note labels\n");
    if (layers) fprintf(stderr, "warning: the 1.2 form drops the layers (every note goes to the base layer)\n");
    if (slots) fprintf(stderr, "warning: the 1.2 form drops envelope slots 12 to 15 (the extra points)\n");
    if (trims) fprintf(stderr, "warning: the 1.2 form drops the start-point trims\n");
    if (overlaps > 0) fprintf(stderr, "warning: the 1.2 form shortens %d overlapping notes to the next note's start\n", overlaps);
  }
  if (!shiftJis) return;
  // Texts with characters that Shift_JIS lacks are cut where they begin.
  auto representable = [](const char* text) {
    std::vector<char> out(2 * strlen(text) + 2);
    return CMultiByte::convert(text, strlen(text), out.data(), out.size() - 1, "UTF8", kShiftJis) == 0;
  };
  // Each text named, with where it is cut.
  auto warn = [](const std::string& what, const char* text) {
    fprintf(stderr, "warning: %s '%s' holds characters Shift_JIS does not have; it is cut where they begin\n",
            what.c_str(), text);
  };
  if (!representable(engine.projectName)) warn("the project name", engine.projectName);
  if (!representable(engine.voiceDir)) warn("the voice folder", engine.voiceDir);
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    if (!representable(note.Lyric)) warn("the lyric of note " + std::to_string(i), note.Lyric);
    if (!representable(note.Label)) warn("the label of note " + std::to_string(i), note.Label);
  }
}

}  // namespace

int runConvert(int argc, char** argv) {
  const Command& command = *findCommand("convert");
  std::string form, charset, fromText, from;
  ArgParser parser(command);
  parser.option("--form", &form);
  parser.option("--charset", &charset);
  parser.option("--from-charset", &fromText);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 2, 2);
  if (status >= 0) return status;
  if (!form.empty() && form != "1.2" && form != "2.0") return usageError(command, "--form is 1.2 or 2.0");
  for (char& c : charset) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (!charset.empty() && charset != "utf-8" && charset != "shift_jis") {
    return usageError(command, "--charset is utf-8 or shift_jis");
  }

  const std::string problem = outputProblem(args[1], {args[0]}, {".snt"});
  if (!problem.empty()) {
    fprintf(stderr, "tona convert: %s\n", problem.c_str());
    return kExitUsage;
  }
  CScaleMan scale;
  CNoteMan manager(&scale);
  errno = 0;
  if (!parseCharset(fromText, &from)) return usageError(command, "--from-charset is utf-8 or shift_jis");
  if (!openProjectFile(manager, args[0], "convert", from)) return kExitFailure;
  ctonm2& engine = *manager.engine();
  if (form == "1.2") engine.sntVersion = 120;
  if (form == "2.0") engine.sntVersion = 200;
  if (charset == "utf-8") engine.set_charset("UTF-8");
  if (charset == "shift_jis") engine.set_charset("Shift_JIS");
  const bool oldForm = engine.sntVersion < 200;
  if (oldForm && charset == "utf-8") fprintf(stderr, "warning: the 1.2 form is always Shift_JIS\n");
  const char* out = engine.charset;
  const bool utf8 = !oldForm && (strcmp(out, "UTF-8") == 0 || strcmp(out, "UTF8") == 0 ||
                                 strcmp(out, "utf-8") == 0 || strcmp(out, "utf8") == 0);
  warnLosses(engine, scale, oldForm, !utf8);

  errno = 0;
  SafeOutput output(args[1]);
  const std::string voices = userFolder(UserFolder::kVoice);
  if (output.path().empty() || manager.writeSnt(output.path().c_str(), voices.c_str()) != 1 || !output.commit()) {
    fprintf(stderr, "tona convert: cannot write '%s': %s\n", args[1].c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  return kExitOk;
}
