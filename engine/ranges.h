// The range of every number a project or a voice bank gives: what a render
// can take. A reader brings a value outside its range to the nearer bound
// once, where it is read, and says which (a notice for the user: the
// command line prints it, the editor shows it). The editor's fields take
// their limits from here too.
#pragma once

#include <string>
#include <vector>

#include "engine/notedata.h"

struct ValueRange {
  const char* name;
  double low, high;
  // The value brought into [low, high]; *moved is set when it had to be.
  double clamp(double value, bool* moved) const;
};

namespace ranges {

constexpr ValueRange kTempo{"Tempo", 10.0, 512.0};
constexpr ValueRange kDelta{"Delta", -1920000.0, 1920000.0};   // 1000 measures of 4/4
constexpr ValueRange kLength{"Duration", 0.0, 192000.0};        // 100 measures
constexpr ValueRange kNoteNum{"NoteNum", 0.0, 127.0};
constexpr ValueRange kIntensity{"Intensity", 0.0, 200.0};
constexpr ValueRange kModulation{"Modulation", -200.0, 200.0};
constexpr ValueRange kVelocity{"Velocity", 0.0, 200.0};
constexpr ValueRange kPreUtterance{"PreUtterance", -1000.0, 5000.0};
constexpr ValueRange kVoiceOverlap{"VoiceOverlap", -1000.0, 5000.0};
constexpr ValueRange kStartPoint{"StartPoint", -1000.0, 5000.0};
constexpr ValueRange kStartTrim{"stptrim", -1000.0, 5000.0};
constexpr ValueRange kPitchStart{"PBS", -2000.0, 2000.0};      // msec, then 10 cents
constexpr ValueRange kPitchHeight{"PBY", -240.0, 240.0};       // 10 cents: two octaves
constexpr ValueRange kPitchWidth{"PBW", 0.0, 10000.0};         // msec
constexpr ValueRange kEnvelopeTime{"Envelope", 0.0, 10000.0};  // msec
constexpr ValueRange kEnvelopeLevel{"Envelope", 0.0, 200.0};   // percent
// Length %, cycle ms, depth cents, fade-in %, fade-out %, phase %, height
// %, expression %, drift %, the tenth slot as it is.
constexpr ValueRange kVibrato[10] = {{"VBR", 0, 100},    {"VBR", 0, 2000},    {"VBR", 0, 2000}, {"VBR", 0, 100},
                                     {"VBR", 0, 100},    {"VBR", -100, 100},  {"VBR", -100, 100},
                                     {"VBR", 0, 100},    {"VBR", -100, 100},  {"VBR", -32768, 32767}};
// The backing track: where it starts (song msec: an hour before the song
// to ten hours into it) and its volume.
constexpr ValueRange kBackingOffset{"BackingTrackOffset", -3.6e6, 3.6e7};
constexpr ValueRange kBackingVolume{"BackingTrackVolume", 0.0, 200.0};
// A voice entry's times (offset, consonant, cut-off, pre-utterance,
// overlap): ten minutes either way.
constexpr ValueRange kEntryTime{"oto.ini", -600000.0, 600000.0};
// Envelope slots that are times; the others (but the unused 7th and the
// flag in the 11th) are levels.
constexpr bool kEnvelopeIsTime[16] = {true, true, true, false, false, false, false, false,
                                      true, true, false, false, true, false, true, false};

}  // namespace ranges

// Brings every number of `note` into its range (but a negative length and
// the note number, which make no note: the render leaves such a note out);
// for each value moved, a notice "note [#NNNN]: FIELD=VALUE is outside
// LOW..HIGH: read as BOUND".
void clampNoteValues(NoteData* note, int index, std::vector<std::string>* notices);
// `*value` into `range`; when it moves, the notice "WHERE: FIELD=VALUE is
// outside LOW..HIGH: read as BOUND" (FIELD: the range's name when empty).
void clampValue(float* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices);
void clampValue(double* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices);
void clampValue(int32_t* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices);
