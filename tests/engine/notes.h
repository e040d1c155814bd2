// Building notes for tests.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "engine/ctonm2.h"
#include "support/textcopy.h"

// A malloc'd count-first float list holding `values`.
inline float* floatList(std::initializer_list<float> values) {
  float* list = static_cast<float*>(malloc(sizeof(float) * (values.size() + 1)));
  list[0] = static_cast<float>(values.size());
  int i = 1;
  for (float v : values) list[i++] = v;
  return list;
}

// A malloc'd count-first byte list of shape letters.
inline uint8_t* byteList(const char* shapes) {
  size_t n = strlen(shapes);
  uint8_t* list = static_cast<uint8_t*>(malloc(n + 1));
  list[0] = static_cast<uint8_t>(n);
  memcpy(list + 1, shapes, n);
  return list;
}

// A zeroed note with the usual defaults of a new note.
inline NoteData makeNote(const char* lyric, int noteNum = 60, int delta = 0, int length = 480) {
  NoteData note;
  memset(&note, 0, sizeof note);
  strcpy_n(note.Lyric, lyric, sizeof note.Lyric);
  note.NoteNum = static_cast<int16_t>(noteNum);
  note.Delta = delta;
  note.Length = length;
  note.Velocity = 100.0f;
  note.Intensity = 100;
  note.Modulation = 100;
  ctonm2::default_env(note.Envelope);
  return note;
}
