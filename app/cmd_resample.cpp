// tona resample SAMPLE OUT.wav [options]: one note through the resampler.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/subcommands.h"
#include "engine/ctonm2.h"
#include "engine/ranges.h"
#include "render/resampler.h"
#include "render/wavefile.h"
#include "support/log.h"
#include "support/safe_output.h"
#include "support/textcopy.h"
#include "voicebank/voiceset.h"

const char kResampleUsage[] =
    "usage: tona resample SAMPLE OUT.wav [--note NAME|NUMBER] [--length MS] [--offset MS]\n"
    "           [--consonant MS] [--blank MS] [--start MS] [--velocity PCT] [--intensity PCT]\n"
    "           [--modulation PCT] [--flags TEXT] [--tempo BPM] [--pitch CENTS,CENTS,...]\n"
    "\n"
    "Renders one note from a voice sample to a 16-bit mono 44.1 kHz WAV file.\n"
    "  --note        note name or number (default C4 = 60)\n"
    "  --length      note length in ms (default: the whole usable stretch)\n"
    "  --offset, --consonant, --blank   the sample's timing, as an oto entry gives it\n"
    "  --start       start point in ms\n"
    "  --velocity    consonant velocity in percent (default 100)\n"
    "  --intensity   volume in percent (default 100)\n"
    "  --modulation  how much of the sample's own pitch movement stays (default 100)\n"
    "  --flags       resampler flags, such as g-5B60\n"
    "  --tempo       tempo of the pitch list's grid (default 120: a point every 5 ticks)\n"
    "  --pitch       pitch list in cents, one value per grid point\n";

int runResample(int argc, char** argv) {
  const Command& command = *findCommand("resample");
  std::string noteText, length, offset, consonant, blank, startPoint, velocity, intensity, modulation, flags, tempo,
      pitch;
  ArgParser parser(command);
  parser.option("--note", &noteText);
  parser.option("--length", &length);
  parser.option("--offset", &offset);
  parser.option("--consonant", &consonant);
  parser.option("--blank", &blank);
  parser.option("--start", &startPoint);
  parser.option("--velocity", &velocity);
  parser.option("--intensity", &intensity);
  parser.option("--modulation", &modulation);
  parser.option("--flags", &flags);
  parser.option("--tempo", &tempo);
  parser.option("--pitch", &pitch);
  std::vector<std::string> args;
  const int status = parser.parse(argc, argv, &args, 2, 2);
  if (status >= 0) return status;

  // Each number within the range a project's note or a bank's entry may
  // have (the same table the readers hold values to).
  struct NumberOption {
    const char* name;
    const std::string* text;
    double value;
    const ValueRange* range;
  };
  NumberOption numbers[] = {{"--length", &length, 0.0, nullptr},
                            {"--offset", &offset, 0.0, &ranges::kEntryTime},
                            {"--consonant", &consonant, 0.0, &ranges::kEntryTime},
                            {"--blank", &blank, 0.0, &ranges::kEntryTime},
                            {"--start", &startPoint, 0.0, &ranges::kStartPoint},
                            {"--velocity", &velocity, 100.0, &ranges::kVelocity},
                            {"--intensity", &intensity, 100.0, &ranges::kIntensity},
                            {"--modulation", &modulation, 100.0, &ranges::kModulation},
                            {"--tempo", &tempo, 120.0, &ranges::kTempo}};
  for (NumberOption& option : numbers) {
    if (option.text->empty()) continue;
    if (!parseDouble(*option.text, &option.value)) {
      return usageError(command, (std::string(option.name) + " takes a number").c_str());
    }
    if (option.range != nullptr && !(option.value >= option.range->low && option.value <= option.range->high)) {
      char allowed[64];
      snprintf(allowed, sizeof allowed, ": %g to %g", option.range->low, option.range->high);
      return usageError(command, (std::string(option.name) + " " + *option.text + allowed).c_str());
    }
  }
  if (!length.empty() && !(numbers[0].value > 0.0 && numbers[0].value <= 3600000.0)) {
    return usageError(command, ("--length " + length + ": from above 0 to 3600000 msec").c_str());
  }
  long noteNumber = 60;
  const long lowest = static_cast<long>(ranges::kNoteNum.low), highest = static_cast<long>(ranges::kNoteNum.high);
  if (!noteText.empty() && !parseInt(noteText, lowest, highest, &noteNumber)) {
    noteNumber = cvoiceset::name2num(noteText.c_str());
    if (noteNumber == 0 && noteText != "C-1") return usageError(command, ("not a note: '" + noteText + "'").c_str());
    if (noteNumber < lowest || noteNumber > highest) {
      return usageError(command, ("--note " + noteText + ": C-1 (0) to G9 (127)").c_str());
    }
  }
  const std::string problem = outputProblem(args[1], {args[0]}, {".wav", ".wave"});
  if (!problem.empty()) {
    fprintf(stderr, "tona resample: %s\n", problem.c_str());
    return kExitUsage;
  }
  std::vector<int16_t> cents;
  if (!pitch.empty()) {
    size_t begin = 0;
    while (begin <= pitch.size()) {
      const size_t comma = std::min(pitch.find(',', begin), pitch.size());
      double value = 0.0;
      if (!parseDouble(pitch.substr(begin, comma - begin), &value) || std::fabs(value) > 32767.0) {
        return usageError(command, "--pitch takes cents separated by commas");
      }
      cents.push_back(static_cast<int16_t>(std::lround(value)));
      begin = comma + 1;
    }
  }
  if (flags.size() > 31) return usageError(command, "--flags holds at most 31 characters");

  VoiceData entry;
  memset(&entry, 0, sizeof entry);
  strcpy_n(entry.filename, args[0].c_str(), sizeof entry.filename);
  entry.offset = static_cast<float>(numbers[1].value);
  entry.fixed = static_cast<float>(numbers[2].value);
  entry.blank = static_cast<float>(numbers[3].value);
  NoteData note;
  memset(&note, 0, sizeof note);
  strcpy_n(note.Lyric, "a", sizeof note.Lyric);
  note.NoteNum = static_cast<int16_t>(noteNumber);
  note.VoiceFile = entry.filename;
  note._stp = static_cast<float>(numbers[4].value);
  note.Velocity = static_cast<float>(numbers[5].value);
  note.Intensity = static_cast<int32_t>(std::lround(numbers[6].value));
  note.Modulation = static_cast<int32_t>(std::lround(numbers[7].value));
  strcpy_n(note.Flags, flags.c_str(), sizeof note.Flags);
  note.PitchCount = static_cast<int32_t>(cents.size());
  note.Pitches = cents.empty() ? nullptr : cents.data();

  // The log shows errors only, unless tonm_log_level asks for more: the
  // reason of a failure is printed below anyway.
  log_init(nullptr, getenv("tonm_log_level") != nullptr ? nullptr : "0");
  init_render(SampleRateOut);
  ResampError error = ResampError::kNone;
  int32_t count = 0;
  double* values = resamp(args[0].c_str(), &note, static_cast<float>(numbers[0].value), &count,
                          static_cast<float>(numbers[8].value), &error);
  if (values == nullptr) {
    fprintf(stderr, "tona resample: %s: %s\n", args[0].c_str(), resampErrorText(error));
    return kExitFailure;
  }
  std::vector<int16_t> words(static_cast<size_t>(count));
  for (int32_t k = 0; k < count; ++k) words[static_cast<size_t>(k)] = static_cast<int16_t>(std::clamp(values[k], -32767.0, 32767.0));
  free(values);
  errno = 0;
  SafeOutput output(args[1]);
  if (output.path().empty() ||
      saveWaveFile(output.path().c_str(), words.data(), count * 2, 16, 1, SampleRateOut) != 0 || !output.commit()) {
    fprintf(stderr, "tona resample: cannot write '%s': %s\n", args[1].c_str(), strerror(errno != 0 ? errno : EIO));
    return kExitFailure;
  }
  fprintf(stderr, "%s: %d samples (%.3f s)\n", args[1].c_str(), count, count / static_cast<double>(SampleRateOut));
  return kExitOk;
}
