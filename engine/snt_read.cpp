// Reading SNT projects: sections of key=value lines.
//
// Headers and keys are recognised by prefix, in the order of the tables
// below, so the order is part of the format. Lines arrive in pieces of at
// most 4095 bytes; each piece counts as a line.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "engine/ctonm2.h"
#include "engine/ranges.h"
#include "support/log.h"
#include "support/regular_file.h"
#include "support/textcopy.h"
#include "support/textfile.h"

namespace {

constexpr int kLineSize = 4096;
constexpr int kMaxShapes = 127;

enum class Section { kNone, kVersion, kSetting, kNote, kTrackEnd };

bool startsWith(const char* line, const char* key) { return strncmp(line, key, strlen(key)) == 0; }

// The value after `key` when the line starts with it, else null.
const char* valueOf(const char* line, const char* key) {
  const size_t n = strlen(key);
  return strncmp(line, key, n) == 0 ? line + n : nullptr;
}

// "%d": leading blanks, a sign and digits; a text that does not start as
// a number leaves the field. Values past the int32 range are clamped.
void readInt(const char* text, int32_t* field) {
  char* end = nullptr;
  const long value = strtol(text, &end, 10);
  if (end == text) return;
  if (value > INT32_MAX) {
    *field = INT32_MAX;
  } else if (value < INT32_MIN) {
    *field = INT32_MIN;
  } else {
    *field = static_cast<int32_t>(value);
  }
}

// "%f", as strtof reads it; a text that does not start as a number leaves
// the field, and so does one that is not finite ("nan", "inf", or past the
// float range): every later use of a note's values takes them as numbers.
void readFloat(const char* text, float* field) {
  char* end = nullptr;
  const float value = strtof(text, &end);
  if (end != text && std::isfinite(value)) *field = value;
}

// Cuts a list value into pieces: the first separator is whichever of ";"
// and "," comes first, every later one is ",". An empty value is one piece.
template <class Visit>
void forEachPiece(const char* value, Visit visit) {
  const char* semicolon = strchr(value, ';');
  const char* comma = strchr(value, ',');
  const char* first = semicolon != nullptr && (comma == nullptr || semicolon < comma) ? semicolon : comma;
  const char* start = value;
  const char* end = first;
  for (;;) {
    if (end == nullptr) {
      visit(std::string(start));
      return;
    }
    visit(std::string(start, static_cast<size_t>(end - start)));
    start = end + 1;
    end = strchr(start, ',');
  }
}

float* parseFloatList(const char* value) {
  size_t count = 0;
  forEachPiece(value, [&](const std::string&) { ++count; });
  float* list = static_cast<float*>(malloc(sizeof(float) * (count + 1)));
  if (list == nullptr) return nullptr;
  list[0] = static_cast<float>(count);
  size_t i = 1;
  forEachPiece(value, [&](const std::string& piece) {
    float number = 0.0f;
    readFloat(piece.c_str(), &number);
    list[i++] = number;
  });
  return list;
}

uint8_t* parseShapeList(const char* value) {
  uint8_t shapes[kMaxShapes + 1];
  int count = 0;
  forEachPiece(value, [&](const std::string& piece) {
    if (count < kMaxShapes) shapes[++count] = static_cast<uint8_t>(piece.empty() ? '\0' : piece[0]);
  });
  shapes[0] = static_cast<uint8_t>(count);
  uint8_t* list = static_cast<uint8_t*>(malloc(static_cast<size_t>(count) + 1));
  if (list != nullptr) memcpy(list, shapes, static_cast<size_t>(count) + 1);
  return list;
}

// Tokens between commas, empty ones skipped.
template <class Visit>
void forEachToken(const char* value, Visit visit) {
  const char* start = value;
  for (;;) {
    const char* comma = strchr(start, ',');
    const size_t n = comma != nullptr ? static_cast<size_t>(comma - start) : strlen(start);
    if (n > 0) visit(std::string(start, n));
    if (comma == nullptr) return;
    start = comma + 1;
  }
}

void parseVibrato(const char* value, int16_t* vbr) {
  int slot = 0;
  forEachToken(value, [&](const std::string& token) {
    if (slot >= 10) return;
    int32_t number = vbr[slot];
    readInt(token.c_str(), &number);
    vbr[slot] = static_cast<int16_t>(std::clamp(number, -32768, 32767));  // held, not wrapped
    ++slot;
  });
}

void parseEnvelope(const char* value, float* env) {
  int pieces = 0;
  const char* start = value;
  for (;;) {
    const char* comma = strchr(start, ',');
    const std::string piece = comma != nullptr ? std::string(start, static_cast<size_t>(comma - start)) : start;
    if (pieces < 16) readFloat(piece.c_str(), &env[pieces]);
    ++pieces;
    if (comma == nullptr) break;
    start = comma + 1;
  }
  if (pieces == 7) env[9] = env[5];
}

int16_t roundToInt16(float value) {
  const double rounded = std::trunc(static_cast<double>(value) + 0.5);
  if (!(rounded > -32768.0)) return std::isnan(rounded) ? 0 : -32768;
  if (rounded > 32767.0) return 32767;
  return static_cast<int16_t>(rounded);
}

void parsePitches(const char* value, NoteData* note) {
  int32_t count = 0;
  forEachToken(value, [&](const std::string&) { ++count; });
  int16_t* list = count > 0 ? static_cast<int16_t*>(malloc(sizeof(int16_t) * static_cast<size_t>(count))) : nullptr;
  if (count > 0 && list == nullptr) return;
  int32_t i = 0;
  forEachToken(value, [&](const std::string& token) {
    float number = 0.0f;
    readFloat(token.c_str(), &number);
    list[i++] = roundToInt16(number);
  });
  free(note->Pitches);
  note->Pitches = list;
  note->PitchCount = count;
}

void replaceFloatList(float** field, const char* value) {
  float* list = parseFloatList(value);
  if (list == nullptr) return;
  free(*field);
  *field = list;
}

void newNoteDefaults(NoteData* note) {
  memset(note, 0, sizeof *note);
  ctonm2::default_env(note->Envelope);
  note->Intensity = 100;
  note->Velocity = 100.0f;
  note->Modulation = 100;
  note->PreUtterance = std::numeric_limits<float>::quiet_NaN();
  note->VoiceOverlap = std::numeric_limits<float>::quiet_NaN();
}

// Copies a folder value whole (bounded by its field) and ends it with "/".
void copyFolder(char* field, const char* value, int size) {
  strcpy_n(field, value, size);
  const size_t n = strlen(field);
  if (n == 0 || field[n - 1] != '/') strcat_n(field, "/", size);
}

}  // namespace

int32_t ctonm2::read_snt(const char* path, char* tsBuffer, int32_t tsSize) {
  tempo = 120.0f;
  voiceDir[0] = projectName[0] = projectPath[0] = cachedir[0] = outfile[0] = charset[0] = flags[0] = '\0';
  sntVersion = 200;
  mode2 = 1;
  renderState = 0;
  readNotices.clear();
  if (path == nullptr) return -1;
  FILE* file = openRegularFile(path, "r");
  if (file == nullptr) return -1;
  skipByteOrderMark(file);

  Section section = Section::kNone;
  int32_t count = 0;
  int32_t capacity = noteCount;
  int32_t version = 100;
  NoteData* note = nullptr;
  char line[kLineSize];
  // fgets either consumes at least one byte or reports the end (or a read
  // failure), so the loop always advances.
  while (fgets(line, sizeof line, file) != nullptr) {
    char* lf = strchr(line, '\n');
    if (lf != nullptr) *lf = '\0';
    char* cr = strchr(line, '\r');
    if (cr != nullptr) *cr = '\0';

    if (startsWith(line, "[#VERSION]")) {
      section = Section::kVersion;
      continue;
    }
    if (startsWith(line, "[#SETTING]")) {
      section = Section::kSetting;
      continue;
    }
    if (startsWith(line, "[#TRACKEND]")) {
      section = Section::kTrackEnd;
      continue;
    }
    if (startsWith(line, "[#")) {
      if (count == capacity) {
        const int32_t grownTo = capacity < 16 ? 16 : capacity * 2;
        NoteData* grown = static_cast<NoteData*>(realloc(notes, sizeof(NoteData) * static_cast<size_t>(grownTo)));
        if (grown == nullptr) {
          log_printf(1, "Not enough memories(read snt-file)\n");
          break;
        }
        notes = grown;
        capacity = grownTo;
      }
      note = &notes[count];
      newNoteDefaults(note);
      if (version < 200 && count > 0) note->Delta = notes[count - 1].Length;
      ++count;
      section = Section::kNote;
      continue;
    }

    const char* v = nullptr;
    switch (section) {
      case Section::kVersion:
        // "SNT Version2.0", or a version line that other tools begin with
        // other letters ("... Version1.2").
        if (const char* word = strstr(line, "Version")) {
          const char* number = word + 7;
          if (number[0] >= '0' && number[0] <= '9' && number[1] == '.' && number[2] >= '0' && number[2] <= '9') {
            version = 100 * (number[0] - '0') + 10 * (number[2] - '0');
          }
          sntVersion = version;
        } else if ((v = valueOf(line, "Charset=")) != nullptr) {
          strcpy_n(charset, v, kCharsetSize);
        }
        break;
      case Section::kSetting:
        if ((v = valueOf(line, "Tempo=")) != nullptr) {
          readFloat(v, &tempo);
        } else if ((v = valueOf(line, "ProjectName=")) != nullptr) {
          strcpy_n(projectName, v, kProjectNameSize);
        } else if ((v = valueOf(line, "VoiceDir=")) != nullptr) {
          copyFolder(voiceDir, v, kVoiceDirSize);
        } else if ((v = valueOf(line, "OutFile=")) != nullptr) {
          strcpy_n(outfile, v, kPathSize);
        } else if ((v = valueOf(line, "CacheDir=")) != nullptr) {
          strcpy_n(cachedir, v, kPathSize);
        } else if ((v = valueOf(line, "Flags=")) != nullptr) {
          strcpy_n(flags, v, kFlagsSize);
        } else if (startsWith(line, "Mode2=True")) {
          mode2 = 1;
        } else if ((v = valueOf(line, "TimeSignatures=")) != nullptr) {
          strcpy_n(tsBuffer, v, tsSize);
        } else if ((v = valueOf(line, "BackingTrack=")) != nullptr) {
          set_audioTrack(v);
        } else if ((v = valueOf(line, "BackingTrackOffset=")) != nullptr) {
          float offset = 0.0f;
          readFloat(v, &offset);
          audioTrackOffset = offset;
          clampValue(&audioTrackOffset, ranges::kBackingOffset, "project", "", &readNotices);
        } else if ((v = valueOf(line, "BackingTrackVolume=")) != nullptr) {
          readInt(v, &audioTrackVolume);
          clampValue(&audioTrackVolume, ranges::kBackingVolume, "project", "", &readNotices);
        } else if ((v = valueOf(line, "BackingTrackMute=")) != nullptr) {
          readInt(v, &audioTrackMute);
          audioTrackMute = audioTrackMute != 0;
        }
        break;
      case Section::kNote:
        if ((v = valueOf(line, "Delta=")) != nullptr) {
          readInt(v, &note->Delta);
        } else if ((v = valueOf(line, "Duration=")) != nullptr) {
          readInt(v, &note->Length);
        } else if ((v = valueOf(line, "Length=")) != nullptr) {
          if (version < 200) readInt(v, &note->Length);
        } else if ((v = valueOf(line, "Lyric=")) != nullptr) {
          strcpy_n(note->Lyric, v, sizeof note->Lyric);
        } else if ((v = valueOf(line, "NoteNum=")) != nullptr) {
          int32_t number = note->NoteNum;
          readInt(v, &number);
          // Held at the type's bounds: a number wrapped into 0..127 would sing.
          note->NoteNum = static_cast<int16_t>(std::clamp(number, -32768, 32767));
        } else if ((v = valueOf(line, "Intensity=")) != nullptr) {
          readInt(v, &note->Intensity);
        } else if ((v = valueOf(line, "Modulation=")) != nullptr || (v = valueOf(line, "Moduration=")) != nullptr) {
          readInt(v, &note->Modulation);
        } else if ((v = valueOf(line, "Label=")) != nullptr) {
          strcpy_n(note->Label, v, sizeof note->Label);
        } else if ((v = valueOf(line, "Flags=")) != nullptr) {
          strcat_n(note->Flags, v, sizeof note->Flags);
        } else if ((v = valueOf(line, "PreUtterance=")) != nullptr) {
          readFloat(v, &note->PreUtterance);
        } else if ((v = valueOf(line, "VoiceOverlap=")) != nullptr) {
          readFloat(v, &note->VoiceOverlap);
        } else if ((v = valueOf(line, "StartPoint=")) != nullptr) {
          readFloat(v, &note->StartPoint);
        } else if ((v = valueOf(line, "Tempo=")) != nullptr) {
          readFloat(v, &note->Tempo);
        } else if ((v = valueOf(line, "PBW=")) != nullptr) {
          replaceFloatList(&note->PBW, v);
        } else if ((v = valueOf(line, "PBS=")) != nullptr) {
          replaceFloatList(&note->PBS, v);
        } else if ((v = valueOf(line, "PBY=")) != nullptr) {
          replaceFloatList(&note->PBY, v);
        } else if ((v = valueOf(line, "PBM=")) != nullptr) {
          uint8_t* shapes = parseShapeList(v);
          if (shapes != nullptr) {
            free(note->PBM);
            note->PBM = shapes;
          }
        } else if ((v = valueOf(line, "VBR=")) != nullptr) {
          parseVibrato(v, note->VBR);
        } else if ((v = valueOf(line, "Envelope=")) != nullptr) {
          parseEnvelope(v, note->Envelope);
        } else if ((v = valueOf(line, "Velocity=")) != nullptr) {
          note->Velocity = 100.0f;
          readFloat(v, &note->Velocity);
        } else if ((v = valueOf(line, "Pitches=")) != nullptr || (v = valueOf(line, "Piches=")) != nullptr ||
                   (v = valueOf(line, "PitchBend=")) != nullptr) {
          parsePitches(v, note);
        } else if ((v = valueOf(line, "stptrim=")) != nullptr) {
          readFloat(v, &note->stptrim);
        } else if ((v = valueOf(line, "layer=")) != nullptr) {
          readInt(v, &note->layer);
        }
        break;
      case Section::kNone:
      case Section::kTrackEnd:
        break;
    }
  }
  fclose(file);
  noteCount = count;
  // Every number within what a render can take, each one moved named.
  if (tempo != 0.0f) clampValue(&tempo, ranges::kTempo, "project", "Tempo", &readNotices);
  for (int32_t i = 0; i < noteCount; ++i) clampNoteValues(&notes[i], i, &readNotices);
  if (count == 0) {
    free(notes);
    notes = nullptr;
  }

  // Tempo changes move onto rest records of length 0 placed before their
  // notes; a sounding note never carries a tempo after reading. The list is
  // made anew in one pass (inserting each record would move the rest of
  // the song every time).
  int32_t changes = 0;
  for (int32_t i = 0; i < noteCount; ++i) {
    if (is_r(notes[i].Lyric)) {
      notes[i].Length = 0;
    } else if (notes[i].Tempo > 0.0f) {
      ++changes;
    }
  }
  if (changes > 0) {
    NoteData* moved = static_cast<NoteData*>(malloc(sizeof(NoteData) * static_cast<size_t>(noteCount + changes)));
    if (moved == nullptr) {
      log_printf(1, "Not enough memories(read snt-file)\n");
      return count;
    }
    int32_t out = 0;
    for (int32_t i = 0; i < noteCount; ++i) {
      NoteData& current = notes[i];
      if (!is_r(current.Lyric) && current.Tempo > 0.0f) {
        NoteData& change = moved[out++];
        memset(&change, 0, sizeof change);
        change.Tempo = current.Tempo;
        change.NoteNum = 48;
        change.Delta = current.Delta;
        current.Delta = 0;
        current.Tempo = 0.0f;
      }
      memcpy(&moved[out++], &current, sizeof current);
    }
    free(notes);
    notes = moved;
    noteCount = out;
  }
  return count;
}
