// The serialized note: a NoteData packed into a self-contained byte string
// that owns no heap pointers, for the note clipboard, the undo history and
// the render cache key. Native byte order, no padding; for use inside one
// process only, never written to disk.
//
// Not serialized: the engine-computed fields (VoiceFile, _pitch,
// _pitchlen, _pos, _delta, _preuttr, _overlap, _notelen, _truelen, _stp,
// stptrim, _tempo) and Label. The buffer is trusted: unserialize reads
// what serialize wrote and checks nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/notedata.h"

class CNoteSerial {
 public:
  // The exact length serialize writes (it counts 2 x PitchCount and
  // 2 x ExprsCount even when those arrays are missing).
  static int32_t serialLength(const NoteData* note);
  // Writes the note; with a null buffer only returns serialLength.
  static int32_t serialize(const NoteData* note, uint8_t* buffer);
  // A malloc block holding the note; the caller frees it. Null on failure.
  static uint8_t* serialize(const NoteData* note);
  // Reads one note into a zeroed record, or one holding heap arrays of its
  // own (reused). Returns the bytes consumed, 0 for a null buffer.
  static int32_t unserialize(const uint8_t* buffer, NoteData* note);
  // The mode-2 pitch line alone (PBS, PBW, PBY, PBM).
  static int32_t serializePitch(const NoteData* note, uint8_t* buffer);
  static int32_t unserializePitch(NoteData* note, const uint8_t* buffer);

  // Copy n bytes and return the pointer advanced by n.
  static uint8_t* bwrite(uint8_t* pointer, const void* source, size_t n);
  static const uint8_t* bread(const uint8_t* pointer, void* target, size_t n);
};

// The note clipboard: one process-wide buffer, private to the program.
// Instances carry no state. Not thread safe (main thread only).
class CClipMan {
 public:
  // Replaces the contents with a copy of size bytes; when memory runs out
  // the old contents stay. Returns 0.
  int32_t ToClip(const void* data, int32_t size);
  // Returns the contents' size; copies them into buffer first when it is
  // given and capacity is at least that size.
  int32_t FromClip(void* buffer, int32_t capacity);

 private:
  static uint8_t* _data;
  static int32_t _size;
};
