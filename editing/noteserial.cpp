#include "editing/noteserial.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kTextCapacity = 31;  // Lyric and Flags hold 31 bytes of text

int32_t floatListBytes(const float* list) {
  return list == nullptr ? 4 : 4 * (floatListCount(list) + 1);
}

int32_t byteListBytes(const uint8_t* list) { return list == nullptr ? 1 : byteListCount(list) + 1; }

uint8_t* writeText(uint8_t* p, const char* text) {
  uint8_t length = static_cast<uint8_t>(strnlen(text, kTextCapacity));
  p = CNoteSerial::bwrite(p, &length, 1);
  return CNoteSerial::bwrite(p, text, length);
}

const uint8_t* readText(const uint8_t* p, char* text) {
  uint8_t length = 0;
  p = CNoteSerial::bread(p, &length, 1);
  size_t kept = length < kTextCapacity ? length : kTextCapacity;
  memcpy(text, p, kept);
  text[kept] = '\0';
  return p + length;
}

uint8_t* writeFloatList(uint8_t* p, const float* list) {
  if (list == nullptr) {
    const float none = 0.0f;
    return CNoteSerial::bwrite(p, &none, 4);
  }
  return CNoteSerial::bwrite(p, list, 4 * (static_cast<size_t>(floatListCount(list)) + 1));
}

uint8_t* writeByteList(uint8_t* p, const uint8_t* list) {
  if (list == nullptr) {
    const uint8_t none = 0;
    return CNoteSerial::bwrite(p, &none, 1);
  }
  return CNoteSerial::bwrite(p, list, static_cast<size_t>(byteListCount(list)) + 1);
}

// Reads a count-first float list into *list, reusing its block. An empty
// list leaves an existing block in place with count 0.
const uint8_t* readFloatList(const uint8_t* p, float** list) {
  float head = 0.0f;
  p = CNoteSerial::bread(p, &head, 4);
  if (head > 0.0f) {
    const int32_t n = floatListCount(&head);
    float* block = static_cast<float*>(realloc(*list, 4 * (static_cast<size_t>(n) + 1)));
    if (block != nullptr) {
      *list = block;
      block[0] = head;
      return CNoteSerial::bread(p, block + 1, 4 * static_cast<size_t>(n));
    }
    if (*list != nullptr) (*list)[0] = 0.0f;
    return p + 4 * static_cast<size_t>(n);
  }
  if (*list != nullptr) (*list)[0] = 0.0f;
  return p;
}

// With signedCount the count byte is read as signed: only 1..127 count.
const uint8_t* readByteList(const uint8_t* p, uint8_t** list, bool signedCount) {
  uint8_t head = 0;
  p = CNoteSerial::bread(p, &head, 1);
  const int n = signedCount ? static_cast<int8_t>(head) : head;
  if (n > 0) {
    uint8_t* block = static_cast<uint8_t*>(realloc(*list, static_cast<size_t>(n) + 1));
    if (block != nullptr) {
      *list = block;
      block[0] = static_cast<uint8_t>(n);
      return CNoteSerial::bread(p, block + 1, static_cast<size_t>(n));
    }
    if (*list != nullptr) (*list)[0] = 0;
    return p + n;
  }
  if (*list != nullptr) (*list)[0] = 0;
  return p;
}

// Reads a counted int16 array; a zero count or a failed allocation frees it.
const uint8_t* readShorts(const uint8_t* p, int32_t* count, int16_t** values) {
  p = CNoteSerial::bread(p, count, 4);
  if (*count > 0) {
    int16_t* block = static_cast<int16_t*>(realloc(*values, 2 * static_cast<size_t>(*count)));
    if (block != nullptr) {
      *values = block;
      return CNoteSerial::bread(p, block, 2 * static_cast<size_t>(*count));
    }
    p += 2 * static_cast<size_t>(*count);
  }
  *count = 0;
  free(*values);
  *values = nullptr;
  return p;
}

}  // namespace

uint8_t* CNoteSerial::bwrite(uint8_t* pointer, const void* source, size_t n) {
  if (n > 0) memcpy(pointer, source, n);
  return pointer + n;
}

const uint8_t* CNoteSerial::bread(const uint8_t* pointer, void* target, size_t n) {
  if (n > 0) memcpy(target, pointer, n);
  return pointer + n;
}

int32_t CNoteSerial::serialLength(const NoteData* note) {
  const int32_t lyric = static_cast<int32_t>(strnlen(note->Lyric, kTextCapacity));
  const int32_t flags = static_cast<int32_t>(strnlen(note->Flags, kTextCapacity));
  return 4 + 4 + 1 + lyric + 2 + 24 + 1 + flags + 4 + 2 * note->PitchCount + 4 +
         2 * note->ExprsCount + 4 + serializePitch(note, nullptr) + 20 + 64 + 4 + 4 + 4;
}

int32_t CNoteSerial::serialize(const NoteData* note, uint8_t* buffer) {
  if (buffer == nullptr) return serialLength(note);
  uint8_t* p = buffer;
  p = bwrite(p, &note->Length, 4);
  p = bwrite(p, &note->Delta, 4);
  p = writeText(p, note->Lyric);
  p = bwrite(p, &note->NoteNum, 2);
  p = bwrite(p, &note->PreUtterance, 4);
  p = bwrite(p, &note->VoiceOverlap, 4);
  p = bwrite(p, &note->Velocity, 4);
  p = bwrite(p, &note->StartPoint, 4);
  p = bwrite(p, &note->Intensity, 4);
  p = bwrite(p, &note->Modulation, 4);
  p = writeText(p, note->Flags);
  p = bwrite(p, &note->PitchCount, 4);
  if (note->Pitches != nullptr && note->PitchCount > 0) {
    p = bwrite(p, note->Pitches, 2 * static_cast<size_t>(note->PitchCount));
  }
  p = bwrite(p, &note->ExprsCount, 4);
  if (note->Exprs != nullptr && note->ExprsCount > 0) {
    p = bwrite(p, note->Exprs, 2 * static_cast<size_t>(note->ExprsCount));
  }
  p = bwrite(p, &note->reserved, 4);
  p += serializePitch(note, p);
  p = bwrite(p, note->VBR, sizeof note->VBR);
  p = bwrite(p, note->Envelope, sizeof note->Envelope);
  p = bwrite(p, &note->Tempo, 4);
  p = bwrite(p, &note->selected, 4);
  p = bwrite(p, &note->layer, 4);
  return static_cast<int32_t>(p - buffer);
}

uint8_t* CNoteSerial::serialize(const NoteData* note) {
  uint8_t* buffer = static_cast<uint8_t*>(malloc(static_cast<size_t>(serialLength(note))));
  if (buffer != nullptr) serialize(note, buffer);
  return buffer;
}

int32_t CNoteSerial::unserialize(const uint8_t* buffer, NoteData* note) {
  if (buffer == nullptr) return 0;
  const uint8_t* p = buffer;
  p = bread(p, &note->Length, 4);
  p = bread(p, &note->Delta, 4);
  p = readText(p, note->Lyric);
  p = bread(p, &note->NoteNum, 2);
  p = bread(p, &note->PreUtterance, 4);
  p = bread(p, &note->VoiceOverlap, 4);
  p = bread(p, &note->Velocity, 4);
  p = bread(p, &note->StartPoint, 4);
  p = bread(p, &note->Intensity, 4);
  p = bread(p, &note->Modulation, 4);
  p = readText(p, note->Flags);
  p = readShorts(p, &note->PitchCount, &note->Pitches);
  p = readShorts(p, &note->ExprsCount, &note->Exprs);
  p = bread(p, &note->reserved, 4);
  p = readFloatList(p, &note->PBS);
  p = readFloatList(p, &note->PBW);
  p = readFloatList(p, &note->PBY);
  p = readByteList(p, &note->PBM, false);
  p = bread(p, note->VBR, sizeof note->VBR);
  p = bread(p, note->Envelope, sizeof note->Envelope);
  p = bread(p, &note->Tempo, 4);
  p = bread(p, &note->selected, 4);
  p = bread(p, &note->layer, 4);
  return static_cast<int32_t>(p - buffer);
}

int32_t CNoteSerial::serializePitch(const NoteData* note, uint8_t* buffer) {
  if (buffer == nullptr) {
    return floatListBytes(note->PBS) + floatListBytes(note->PBW) + floatListBytes(note->PBY) +
           byteListBytes(note->PBM);
  }
  uint8_t* p = buffer;
  p = writeFloatList(p, note->PBS);
  p = writeFloatList(p, note->PBW);
  p = writeFloatList(p, note->PBY);
  p = writeByteList(p, note->PBM);
  return static_cast<int32_t>(p - buffer);
}

int32_t CNoteSerial::unserializePitch(NoteData* note, const uint8_t* buffer) {
  if (buffer == nullptr) return 0;
  const uint8_t* p = buffer;
  p = readFloatList(p, &note->PBS);
  p = readFloatList(p, &note->PBW);
  p = readFloatList(p, &note->PBY);
  p = readByteList(p, &note->PBM, true);
  return static_cast<int32_t>(p - buffer);
}

uint8_t* CClipMan::_data = nullptr;
int32_t CClipMan::_size = 0;

int32_t CClipMan::ToClip(const void* data, int32_t size) {
  if (size < 0) size = 0;
  uint8_t* copy = static_cast<uint8_t*>(malloc(size > 0 ? static_cast<size_t>(size) : 1));
  if (copy == nullptr) return 0;
  if (size > 0) memcpy(copy, data, static_cast<size_t>(size));
  free(_data);
  _data = copy;
  _size = size;
  return 0;
}

int32_t CClipMan::FromClip(void* buffer, int32_t capacity) {
  if (buffer != nullptr && capacity >= _size && _size > 0) {
    memcpy(buffer, _data, static_cast<size_t>(_size));
  }
  return _size;
}
