// tona import FILE.mid -o OUT.snt [--track N] [--channel C] [--list] ...
// tona export PROJECT -o OUT.mid

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midiman.h"
#include "midi/musicxml.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

const char kImportUsage[] =
    "usage: tona import FILE.mid|FILE.vsq -o OUT.snt [--track N] [--channel C] [--list]\n"
    "       tona import SCORE.musicxml|SCORE.xml|SCORE.mxl -o OUT.snt [--part N] [--voice N]\n"
    "                   [--verse N] [--list]\n"
    "                   [--voice-dir DIR] [--form 1.2|2.0] [--charset auto|utf-8|shift_jis]\n"
    "                   [--text-lyrics auto|yes|no] [--phonemes]\n"
    "\n"
    "Makes a project of the notes of one track of a Standard MIDI file, with\n"
    "their lyrics, the tempo changes and the time signatures; or of every\n"
    "voice track of a VSQ sequence, each on a layer of its own; or of one\n"
    "voice of one part of a MusicXML score (ties merged, chords by their top\n"
    "note, grace notes left out, a melisma singing on its vowel).\n"
    "  --list         list the tracks (name, notes, lyrics) and their channels\n"
    "  --track N      the track to read (default: the first with notes)\n"
    "  --channel C    only the notes of channel C, 0..15 (default: every one)\n"
    "  --voice-dir    the voice bank the project sings with\n"
    "  --form         the project's form (default 2.0)\n"
    "  --charset      how lyrics are read (default auto: each by its bytes)\n"
    "  --text-lyrics  whether text events are lyrics (default auto: in a track\n"
    "                 without lyric events, the texts on note starts)\n"
    "  --phonemes     VSQ: take the lyrics from the phonemes\n"
    "  --part N       MusicXML: the part to read, from 1 (default: the first with lyrics)\n"
    "  --voice N      MusicXML: the voice of the part (default: its first)\n"
    "  --verse N      MusicXML: the verse of the lyrics (default 1)\n";

const char kExportUsage[] =
    "usage: tona export PROJECT -o OUT.mid|OUT.vsq|OUT.musicxml\n"
    "\n"
    "Writes the project's notes as a Standard MIDI file (format 1, 480 ticks\n"
    "per quarter: a track of tempo changes and a track of notes with their\n"
    "lyrics), as a VSQ sequence (a voice track per layer, with phonemes), or\n"
    "as a one-part MusicXML score (.musicxml or .xml), by the output's\n"
    "extension.\n";

namespace {

bool endsWith(const std::string& text, const char* tail) {
  const size_t n = strlen(tail);
  return text.size() >= n && strcasecmp(text.c_str() + text.size() - n, tail) == 0;
}

// An import's output: given, not the input, a project. The exit status to
// return at once, or -1 when it is fine.
int importOutputProblem(const Command& command, const std::string& output, const std::string& input) {
  if (output.empty()) return usageError(command, "no output file given (-o OUT.snt)");
  const std::string problem = outputProblem(output, {input}, {".snt"});
  if (problem.empty()) return -1;
  fprintf(stderr, "tona import: %s\n", problem.c_str());
  return kExitUsage;
}

bool isScore(const std::string& path) {
  return endsWith(path, ".musicxml") || endsWith(path, ".xml") || endsWith(path, ".mxl");
}

// Writes the imported project; the exit status.
int writeImported(CNoteMan& manager, const std::string& output, const std::string& voiceDir, const std::string& form) {
  ctonm2& engine = *manager.engine();
  if (!voiceDir.empty()) engine.set_voiceDir(voiceDir.c_str());
  engine.sntVersion = form == "1.2" ? 120 : 200;
  engine.set_charset("UTF-8");
  const std::string voices = userFolder(UserFolder::kVoice);
  errno = 0;
  SafeOutput file(output);
  if (file.path().empty() || manager.writeSnt(file.path().c_str(), voices.c_str()) != 1 || !file.commit()) {
    fprintf(stderr, "tona import: cannot write '%s': %s\n", output.c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  return kExitOk;
}

int importScore(const Command& command, const std::string& input, const std::string& output, bool list,
                const std::string& partText, const std::string& voiceText, const std::string& verseText,
                const std::string& voiceDir, const std::string& form) {
  long part = 0, voice = 0, verse = 1;
  if (!partText.empty() && !parseInt(partText, 1, 100000, &part)) return usageError(command, "--part takes 1 or more");
  if (!voiceText.empty() && !parseInt(voiceText, 1, 100000, &voice)) return usageError(command, "--voice takes 1 or more");
  if (!verseText.empty() && !parseInt(verseText, 1, 100000, &verse)) return usageError(command, "--verse takes 1 or more");
  CMusicXml score;
  if (!score.load(input.c_str())) {
    fprintf(stderr, "tona import: '%s': %s; nothing written\n", input.c_str(), score.error().c_str());
    return kExitFailure;
  }
  if (list) {
    for (size_t k = 0; k < score.parts().size(); ++k) {
      const CMusicXml::Part& p = score.parts()[k];
      printf("Part %zu: %s (%d notes%s)\n", k + 1, p.name.c_str(), p.notes, p.lyrics ? ", lyrics" : "");
    }
    return kExitOk;
  }
  const int refused = importOutputProblem(command, output, input);
  if (refused >= 0) return refused;
  const int32_t chosen = part > 0 ? static_cast<int32_t>(part - 1) : score.defaultPart();
  CScaleMan scale;
  CNoteMan manager(&scale);
  std::string signatures;
  const int32_t notes =
      score.importPart(chosen, static_cast<int32_t>(voice), static_cast<int32_t>(verse), &manager, &signatures);
  if (notes < 0) {
    fprintf(stderr, "tona import: '%s': %s; nothing written\n", input.c_str(), score.error().c_str());
    return kExitFailure;
  }
  scale.unserializeText(signatures.c_str());
  const int status = writeImported(manager, output, voiceDir, form);
  if (status == kExitOk) fprintf(stderr, "imported %d notes from part %d into '%s'\n", notes, chosen + 1, output.c_str());
  return status;
}

}  // namespace

int runImport(int argc, char** argv) {
  const Command& command = *findCommand("import");
  std::string output, trackText, channelText, voiceDir, form, charsetText, textLyrics = "auto";
  std::string partText, voiceText, verseText;
  bool list = false, phonemes = false;
  ArgParser parser(command);
  parser.flag("--phonemes", &phonemes);
  parser.option("-o", &output);
  parser.option("--output", &output);
  parser.option("--track", &trackText);
  parser.option("--channel", &channelText);
  parser.option("--voice-dir", &voiceDir);
  parser.option("--form", &form);
  parser.option("--charset", &charsetText);
  parser.option("--text-lyrics", &textLyrics);
  parser.option("--part", &partText);
  parser.option("--voice", &voiceText);
  parser.option("--verse", &verseText);
  parser.flag("--list", &list);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 1, 1);
  if (status >= 0) return status;
  const std::string& input = args[0];
  long track = -1, channel = -1;
  if (!trackText.empty() && !parseInt(trackText, 0, 65535, &track)) return usageError(command, "--track takes 0 to 65535");
  if (!channelText.empty() && !parseInt(channelText, 0, 15, &channel)) return usageError(command, "--channel takes 0 to 15");
  if (!form.empty() && form != "1.2" && form != "2.0") return usageError(command, "--form is 1.2 or 2.0");
  std::string charset;
  if (charsetText != "auto" && !parseCharset(charsetText, &charset)) {
    return usageError(command, "--charset is auto, utf-8 or shift_jis");
  }
  if (textLyrics != "auto" && textLyrics != "yes" && textLyrics != "no") {
    return usageError(command, "--text-lyrics is auto, yes or no");
  }
  if (isScore(input)) return importScore(command, input, output, list, partText, voiceText, verseText, voiceDir, form);
  const bool vsq = endsWith(input, ".vsq");
  CMIDIMan midi;
  midi.setCharset(charset);
  midi.setTextLyrics(textLyrics == "yes"  ? CMIDIMan::TextLyrics::kYes
                     : textLyrics == "no" ? CMIDIMan::TextLyrics::kNo
                                          : CMIDIMan::TextLyrics::kAuto);
  midi.setUsePhoneme(phonemes);
  if (list) {
    const std::vector<std::string> tracks = midi.getTrackList(input.c_str());
    if (tracks.empty()) {
      fprintf(stderr, "tona import: '%s': %s\n", input.c_str(), midi.error().c_str());
      return kExitFailure;
    }
    printf("format %d, %d ticks per quarter\n", midi.format(), midi.division());
    for (size_t k = 0; k < tracks.size(); ++k) {
      printf("%s\n", tracks[k].c_str());
      for (const std::string& line : midi.getChannelList(input.c_str(), static_cast<int32_t>(k))) {
        printf("    %s\n", line.c_str());
      }
    }
    return kExitOk;
  }
  const int refused = importOutputProblem(command, output, input);
  if (refused >= 0) return refused;
  if (track < 0 && !vsq) track = CMIDIMan::defaultTrack(midi.getTrackList(input.c_str()));

  CScaleMan scale;
  CNoteMan manager(&scale);
  std::string signatures;
  const int32_t notes = vsq ? midi.importVSQFile(input.c_str(), &manager)
                            : midi.importMIDIFile(input.c_str(), static_cast<int32_t>(track),
                                                  static_cast<int32_t>(channel), &manager, &signatures);
  if (notes < 0) {
    fprintf(stderr, "tona import: '%s': %s; nothing written\n", input.c_str(), midi.error().c_str());
    return kExitFailure;
  }
  for (const std::string& warning : midi.warnings()) fprintf(stderr, "warning: %s\n", warning.c_str());
  if (!signatures.empty()) scale.unserializeText(signatures.c_str());
  if (writeImported(manager, output, voiceDir, form) != kExitOk) return kExitFailure;
  if (vsq) {
    fprintf(stderr, "imported %d notes into '%s'\n", notes, output.c_str());
  } else {
    fprintf(stderr, "imported %d notes from track %ld into '%s'\n", notes, track, output.c_str());
  }
  return kExitOk;
}

int runExport(int argc, char** argv) {
  const Command& command = *findCommand("export");
  std::string output;
  ArgParser parser(command);
  parser.option("-o", &output);
  parser.option("--output", &output);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 1, 1);
  if (status >= 0) return status;
  if (output.empty()) return usageError(command, "no output file given (-o OUT.mid)");
  const bool vsq = endsWith(output, ".vsq"), musicXml = endsWith(output, ".musicxml") || endsWith(output, ".xml");
  const std::string problem =
      outputProblem(output, {args[0]}, {".mid", ".midi", ".smf", ".vsq", ".musicxml", ".xml"});
  if (!problem.empty()) {
    fprintf(stderr, "tona export: %s\n", problem.c_str());
    return kExitUsage;
  }
  CScaleMan scale;
  CNoteMan manager(&scale);
  if (!openProjectFile(manager, args[0], "export")) return kExitFailure;
  if (musicXml) {
    std::string error;
    if (!CMusicXml::write(output.c_str(), &manager, &error)) {
      fprintf(stderr, "tona export: %s\n", error.c_str());
      return kExitFailure;
    }
    return kExitOk;
  }
  errno = 0;
  SafeOutput file(output);
  CMIDIMan midi;
  const bool written = !file.path().empty() && (vsq ? midi.writeVSQFile(file.path().c_str(), &manager)
                                                    : midi.writeSMFFile(file.path().c_str(), &manager));
  if (!written || !file.commit()) {
    fprintf(stderr, "tona export: cannot write '%s': %s\n", output.c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  return kExitOk;
}
