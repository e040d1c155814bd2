#include "editing/noteserial.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"

namespace {

// A note with every serialized field set to something recognisable.
NoteData fullNote() {
  NoteData note = makeNote("ka", 61, 120, 240);
  note.PreUtterance = NAN;
  note.VoiceOverlap = -std::numeric_limits<float>::quiet_NaN();
  note.StartPoint = 12.5f;
  strcpy_n(note.Flags, "g-5B60", sizeof note.Flags);
  strcpy_n(note.Label, "chorus", sizeof note.Label);
  note.PitchCount = 3;
  note.Pitches = static_cast<int16_t*>(malloc(3 * sizeof(int16_t)));
  note.Pitches[0] = -5;
  note.Pitches[1] = 0;
  note.Pitches[2] = 7;
  note.ExprsCount = 2;
  note.Exprs = static_cast<int16_t*>(malloc(2 * sizeof(int16_t)));
  note.Exprs[0] = 3;
  note.Exprs[1] = -3;
  note.reserved = 0xdeadbeef;
  note.PBS = floatList({-40.0f, 2.0f});
  note.PBW = floatList({30.0f, 50.0f});
  note.PBY = floatList({-1.5f});
  note.PBM = byteList("sr");
  for (int i = 0; i < 10; ++i) note.VBR[i] = static_cast<int16_t>(i * 11 - 20);
  note.Envelope[11] = 1.0f;
  note.Tempo = 98.5f;
  note.selected = 1;
  note.layer = 2;
  note._pos = 1234.0;  // engine-computed: not carried
  note.stptrim = 3.0f;
  return note;
}

bool sameFloatList(const float* a, const float* b) {
  int32_t n = floatListCount(a);
  if (n != floatListCount(b)) return false;
  return n == 0 || memcmp(a, b, sizeof(float) * (static_cast<size_t>(n) + 1)) == 0;
}

}  // namespace

TEST(NoteSerial, RoundTripKeepsEverySerializedFieldBitForBit) {
  NoteData note = fullNote();
  const int32_t length = CNoteSerial::serialLength(&note);
  std::vector<uint8_t> buffer(static_cast<size_t>(length) + 8, 0xAB);  // guard bytes after
  ASSERT_EQ(CNoteSerial::serialize(&note, buffer.data()), length);
  EXPECT_EQ(CNoteSerial::serialize(&note, nullptr), length);
  for (size_t i = static_cast<size_t>(length); i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xAB);

  NoteData back;
  memset(&back, 0, sizeof back);
  ASSERT_EQ(CNoteSerial::unserialize(buffer.data(), &back), length);
  EXPECT_EQ(back.Length, 240);
  EXPECT_EQ(back.Delta, 120);
  EXPECT_STREQ(back.Lyric, "ka");
  EXPECT_EQ(back.NoteNum, 61);
  EXPECT_EQ(0, memcmp(&back.PreUtterance, &note.PreUtterance, 4));  // NaN payloads too
  EXPECT_EQ(0, memcmp(&back.VoiceOverlap, &note.VoiceOverlap, 4));
  EXPECT_EQ(back.StartPoint, 12.5f);
  EXPECT_STREQ(back.Flags, "g-5B60");
  ASSERT_EQ(back.PitchCount, 3);
  EXPECT_EQ(0, memcmp(back.Pitches, note.Pitches, 6));
  ASSERT_EQ(back.ExprsCount, 2);
  EXPECT_EQ(0, memcmp(back.Exprs, note.Exprs, 4));
  EXPECT_EQ(back.reserved, 0xdeadbeefu);
  EXPECT_TRUE(sameFloatList(back.PBS, note.PBS));
  EXPECT_TRUE(sameFloatList(back.PBW, note.PBW));
  EXPECT_TRUE(sameFloatList(back.PBY, note.PBY));
  ASSERT_NE(back.PBM, nullptr);
  EXPECT_EQ(0, memcmp(back.PBM, note.PBM, 3));
  EXPECT_EQ(0, memcmp(back.VBR, note.VBR, sizeof note.VBR));
  EXPECT_EQ(0, memcmp(back.Envelope, note.Envelope, sizeof note.Envelope));
  EXPECT_EQ(back.Tempo, 98.5f);
  EXPECT_EQ(back.selected, 1u);
  EXPECT_EQ(back.layer, 2);
  EXPECT_STREQ(back.Label, "");  // not serialized
  EXPECT_EQ(back._pos, 0.0);
  EXPECT_EQ(back.stptrim, 0.0f);

  // Serializing the copy gives the same bytes.
  std::vector<uint8_t> again(static_cast<size_t>(length));
  CNoteSerial::serialize(&back, again.data());
  EXPECT_EQ(0, memcmp(again.data(), buffer.data(), static_cast<size_t>(length)));
  ctonm2::note_clear(&note);
  ctonm2::note_clear(&back);
}

TEST(NoteSerial, ByteLayoutOfAKnownNote) {
  // Field order and byte order pinned: a round trip alone would not see
  // two fields swapped in both directions.
  NoteData note;
  memset(&note, 0, sizeof note);
  note.Length = 480;
  note.Delta = 240;
  strcpy(note.Lyric, "ka");
  note.NoteNum = 60;
  note.PreUtterance = 1.0f;
  note.VoiceOverlap = 2.0f;
  note.Velocity = 100.0f;
  note.StartPoint = 0.5f;
  note.Intensity = 90;
  note.Modulation = 7;
  strcpy(note.Flags, "g");
  note.reserved = 0xAABBCCDD;
  note.PBW = static_cast<float*>(malloc(2 * sizeof(float)));
  note.PBW[0] = 1.0f;
  note.PBW[1] = 80.0f;
  note.VBR[0] = 65;
  note.Envelope[0] = 5.0f;
  note.Tempo = 140.0f;
  note.selected = 1;
  note.layer = 3;
  std::vector<uint8_t> bytes(static_cast<size_t>(CNoteSerial::serialLength(&note)));
  ASSERT_EQ(CNoteSerial::serialize(&note, bytes.data()), static_cast<int32_t>(bytes.size()));
  auto at = [&](size_t offset, const std::vector<uint8_t>& expected) {
    return std::vector<uint8_t>(bytes.begin() + static_cast<long>(offset),
                                bytes.begin() + static_cast<long>(offset + expected.size())) == expected;
  };
  EXPECT_TRUE(at(0, {0xE0, 0x01, 0, 0, 0xF0, 0, 0, 0}));           // Length, Delta
  EXPECT_TRUE(at(8, {2, 'k', 'a', 60, 0}));                        // lyric length, lyric, NoteNum
  EXPECT_TRUE(at(13, {0, 0, 0x80, 0x3F, 0, 0, 0, 0x40}));          // PreUtterance 1, VoiceOverlap 2
  EXPECT_TRUE(at(21, {0, 0, 0xC8, 0x42, 0, 0, 0, 0x3F}));          // Velocity 100, StartPoint 0.5
  EXPECT_TRUE(at(29, {90, 0, 0, 0, 7, 0, 0, 0, 1, 'g'}));          // Intensity, Modulation, flags
  EXPECT_TRUE(at(39, {0, 0, 0, 0, 0, 0, 0, 0, 0xDD, 0xCC, 0xBB, 0xAA}));  // no Pitches, no Exprs, reserved
  EXPECT_TRUE(at(51, {0, 0, 0, 0, 0, 0, 0x80, 0x3F, 0, 0, 0xA0, 0x42, 0, 0, 0, 0, 0}));  // PBS none, PBW (1: 80), PBY none, PBM none
  EXPECT_TRUE(at(68, {65, 0}));                                    // VBR[0]
  EXPECT_TRUE(at(88, {0, 0, 0xA0, 0x40}));                         // Envelope[0] = 5
  EXPECT_TRUE(at(152, {0, 0, 0x0C, 0x43, 1, 0, 0, 0, 3, 0, 0, 0}));  // Tempo 140, selected, layer
  EXPECT_EQ(bytes.size(), 164u);
  ctonm2::note_clear(&note);
}

TEST(NoteSerial, MissingArraysAreZeroCountsAndStayMissing) {
  NoteData bare = makeNote("a");
  EXPECT_EQ(CNoteSerial::serializePitch(&bare, nullptr), 13);  // three float 0s and a byte 0
  uint8_t pitch[13];
  memset(pitch, 0xFF, sizeof pitch);
  EXPECT_EQ(CNoteSerial::serializePitch(&bare, pitch), 13);
  for (uint8_t byte : pitch) EXPECT_EQ(byte, 0);
  EXPECT_EQ(CNoteSerial::serialLength(&bare), 4 + 4 + 1 + 1 + 2 + 24 + 1 + 0 + 4 + 4 + 4 + 13 + 20 + 64 + 12);

  uint8_t* packed = CNoteSerial::serialize(&bare);
  ASSERT_NE(packed, nullptr);
  NoteData back;
  memset(&back, 0, sizeof back);
  CNoteSerial::unserialize(packed, &back);
  EXPECT_EQ(back.PBS, nullptr);
  EXPECT_EQ(back.PBM, nullptr);
  EXPECT_EQ(back.Pitches, nullptr);
  EXPECT_EQ(back.Exprs, nullptr);

  // Into a record that has arrays: they are kept, emptied, not freed.
  NoteData holder = fullNote();
  CNoteSerial::unserialize(packed, &holder);
  ASSERT_NE(holder.PBM, nullptr);
  EXPECT_EQ(holder.PBM[0], 0);
  ASSERT_NE(holder.PBS, nullptr);
  EXPECT_EQ(floatListCount(holder.PBS), 0);
  EXPECT_EQ(holder.Pitches, nullptr);  // the int16 lists go with a zero count
  EXPECT_EQ(holder.PitchCount, 0);
  free(packed);
  ctonm2::note_clear(&holder);
}

TEST(NoteSerial, PitchLineAloneAndEmptyShapeListKept) {
  NoteData source = fullNote();
  source.PBM[0] = 0;  // a shape list with count 0 is written as one byte 0
  const int32_t length = CNoteSerial::serializePitch(&source, nullptr);
  EXPECT_EQ(length, 12 + 12 + 8 + 1);
  std::vector<uint8_t> buffer(static_cast<size_t>(length));
  ASSERT_EQ(CNoteSerial::serializePitch(&source, buffer.data()), length);

  NoteData target = makeNote("b");
  target.PBM = byteList("jjj");
  ASSERT_EQ(CNoteSerial::unserializePitch(&target, buffer.data()), length);
  EXPECT_TRUE(sameFloatList(target.PBS, source.PBS));
  EXPECT_TRUE(sameFloatList(target.PBY, source.PBY));
  ASSERT_NE(target.PBM, nullptr);
  EXPECT_EQ(target.PBM[0], 0);
  EXPECT_EQ(CNoteSerial::unserialize(nullptr, &target), 0);
  EXPECT_EQ(CNoteSerial::unserializePitch(&target, nullptr), 0);
  ctonm2::note_clear(&source);
  ctonm2::note_clear(&target);
}

TEST(NoteSerial, NotesBackToBackReadInALoop) {
  NoteData notes[3] = {fullNote(), makeNote("i", 64), fullNote()};
  strcpy_n(notes[2].Lyric, "ri", sizeof notes[2].Lyric);
  std::vector<uint8_t> buffer;
  for (const NoteData& note : notes) {
    std::vector<uint8_t> one(static_cast<size_t>(CNoteSerial::serialLength(&note)));
    CNoteSerial::serialize(&note, one.data());
    buffer.insert(buffer.end(), one.begin(), one.end());
  }
  const uint8_t* p = buffer.data();
  std::string lyrics;
  for (int i = 0; i < 3; ++i) {
    NoteData back;
    memset(&back, 0, sizeof back);
    p += CNoteSerial::unserialize(p, &back);
    lyrics += std::string(back.Lyric) + ",";
    ctonm2::note_clear(&back);
  }
  EXPECT_EQ(p, buffer.data() + buffer.size());
  EXPECT_EQ(lyrics, "ka,i,ri,");
  for (NoteData& note : notes) ctonm2::note_clear(&note);
}

TEST(NoteClipboard, SizeQueriesAndCopies) {
  CClipMan clip;
  const char first[] = "three notes";
  EXPECT_EQ(clip.ToClip(first, sizeof first), 0);
  EXPECT_EQ(CClipMan().FromClip(nullptr, 0), static_cast<int32_t>(sizeof first));  // shared by all

  char small[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(clip.FromClip(small, sizeof small), static_cast<int32_t>(sizeof first));
  EXPECT_EQ(small[0], 'x');  // too small: nothing copied

  std::vector<char> room(static_cast<size_t>(clip.FromClip(nullptr, 0)));
  clip.FromClip(room.data(), static_cast<int32_t>(room.size()));
  EXPECT_STREQ(room.data(), "three notes");

  clip.ToClip("ab", 2);
  EXPECT_EQ(clip.FromClip(nullptr, 0), 2);
}
