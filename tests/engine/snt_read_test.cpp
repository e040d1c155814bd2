#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"
#include "tests/testutil.h"

namespace {

// Reads a project text with the engine's reader alone.
class SntRead : public ::testing::Test {
 protected:
  int32_t read(const std::string& text) {
    const std::string path = dir_.file("project.snt");
    writeFile(path, text);
    engine_.free_snt();
    timeSignatures_[0] = '\0';
    return engine_.read_snt(path.c_str(), timeSignatures_, sizeof timeSignatures_);
  }
  // A 2.0 project with one note whose section holds `lines`.
  int32_t readNote(const std::string& lines) {
    return read("[#VERSION]\nSNT Version2.0\n[#SETTING]\n[#0000]\nLyric=a\n" + lines + "[#TRACKEND]\n");
  }
  const NoteData& note(int i) { return engine_.notes[i]; }
  std::string floats(const float* list) {
    std::string text;
    for (int i = 1; i <= floatListCount(list); ++i) text += std::to_string(static_cast<int>(list[i])) + ",";
    return std::to_string(floatListCount(list)) + ":" + text;
  }

  TempDir dir_;
  ctonm2 engine_;
  char timeSignatures_[64];
};

}  // namespace

TEST_F(SntRead, FloatListsTakeTheFirstSeparatorThenCommas) {
  ASSERT_EQ(readNote("PBS=-40;5\nPBW=1;2;3\nPBY=1,2;3,x\n"), 1);
  EXPECT_EQ(floats(note(0).PBS), "2:-40,5,");
  EXPECT_EQ(floats(note(0).PBW), "2:1,2,");  // "2;3" reads as 2
  EXPECT_EQ(floats(note(0).PBY), "3:1,2,0,");
  readNote("PBS=\nPBW=5\nPBW=6,7\n");
  EXPECT_EQ(floats(note(0).PBS), "1:0,");    // an empty value is one piece
  EXPECT_EQ(floats(note(0).PBW), "2:6,7,");  // a later line replaces the list
  // An empty bend list is no list.
  readNote("Pitches=1,2\nPitches=\n");
  EXPECT_EQ(note(0).PitchCount, 0);
  EXPECT_EQ(note(0).Pitches, nullptr);
}

TEST_F(SntRead, ShapeVibratoEnvelopeAndPitchLists) {
  std::string many = "PBM=";
  for (int i = 0; i < 200; ++i) many += "s,";
  readNote(
      "PBM=,r,,\nVBR=65,,180,x,,5,6,7,8,9,10,11,12\n"
      "Envelope=0,5,35,0,100,100,0\nPitchBend=2.5,-2.5,,abc,1.4\n");
  const NoteData& n = note(0);
  ASSERT_NE(n.PBM, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(n.PBM), 5), std::string("\x04\0r\0\0", 5));
  const int16_t vbr[10] = {65, 180, 0, 5, 6, 7, 8, 9, 10, 11};  // "x" leaves slot 2
  EXPECT_EQ(0, memcmp(n.VBR, vbr, sizeof vbr));
  EXPECT_EQ(n.Envelope[1], 5.0f);
  EXPECT_EQ(n.Envelope[5], 100.0f);
  EXPECT_EQ(n.Envelope[9], 100.0f);  // seven values: slot 5 copied into slot 9
  EXPECT_EQ(n.Envelope[8], 35.0f);   // untouched default
  ASSERT_EQ(n.PitchCount, 4);
  EXPECT_EQ(n.Pitches[0], 3);
  EXPECT_EQ(n.Pitches[1], -2);
  EXPECT_EQ(n.Pitches[2], 0);
  EXPECT_EQ(n.Pitches[3], 1);

  readNote(many + "\nEnvelope=,,7,%,8\nVBR=\n");
  EXPECT_EQ(note(0).PBM[0], 127);
  EXPECT_EQ(note(0).Envelope[0], 5.0f);  // empty pieces keep their place and default
  EXPECT_EQ(note(0).Envelope[2], 7.0f);
  EXPECT_EQ(note(0).Envelope[3], 100.0f);  // "%" does not read
  EXPECT_EQ(note(0).Envelope[4], 8.0f);
  EXPECT_EQ(note(0).Envelope[9], 1.0f);
}

TEST_F(SntRead, ScalarKeysAndTheirDefaults) {
  readNote("Flags=B60\nFlags=g-5" + std::string(40, 'x') +
           "\nPreUtterance=\nVoiceOverlap=abc\n"
           "Velocity=fast\nModuration=40\nPiches=7\nIntensity=80\nNoteNum=65\nstptrim=2.5\nlayer=3\n"
           "Lyric=" +
           std::string(40, 'l') + "\nLabel=chorus\nStartPoint=12\nUnknownKey=1\n");
  const NoteData& n = note(0);
  EXPECT_EQ(std::string(n.Flags), "B60g-5" + std::string(25, 'x'));  // concatenated, 31 bytes
  EXPECT_TRUE(std::isnan(n.PreUtterance));
  EXPECT_TRUE(std::isnan(n.VoiceOverlap));
  EXPECT_EQ(n.Velocity, 100.0f);
  EXPECT_EQ(n.Modulation, 40);
  ASSERT_EQ(n.PitchCount, 1);
  EXPECT_EQ(n.Pitches[0], 7);
  EXPECT_EQ(n.Intensity, 80);
  EXPECT_EQ(n.NoteNum, 65);
  EXPECT_EQ(n.stptrim, 2.5f);
  EXPECT_EQ(n.layer, 3);
  EXPECT_EQ(strlen(n.Lyric), 31u);
  EXPECT_STREQ(n.Label, "chorus");
  EXPECT_EQ(n.StartPoint, 12.0f);
  EXPECT_EQ(n.Envelope[8], 35.0f);  // default envelope
}

TEST_F(SntRead, SectionsSettingsAndTheTrackEnd) {
  const int32_t count = read(
      "garbage before any header\nLyric=ignored\n"
      "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n"
      "[#SETTING]\nTempo=98.5\nProjectName=song\nVoiceDir=/banks/a\nOutFile=/out.wav\nCacheDir=/c\n"
      "Flags=g-2\nMode2=True\nTimeSignatures=(3/4/0),\n"
      "[#0000]\nLyric=ka\nDuration=480\nLength=999\n"
      "[#DELETE]\nLyric=ki\n"
      "[#TRACKEND]\nLyric=after the end\n"
      "[#0002]\nLyric=late\n");
  EXPECT_EQ(count, 3);  // a note header after the end still opens a note
  EXPECT_EQ(engine_.sntVersion, 200);
  EXPECT_STREQ(engine_.charset, "UTF-8");
  EXPECT_EQ(engine_.tempo, 98.5f);
  EXPECT_STREQ(engine_.projectName, "song");
  EXPECT_STREQ(engine_.voiceDir, "/banks/a/");
  EXPECT_STREQ(engine_.outfile, "/out.wav");
  EXPECT_STREQ(engine_.cachedir, "/c");
  EXPECT_STREQ(engine_.flags, "g-2");
  EXPECT_STREQ(timeSignatures_, "(3/4/0),");
  EXPECT_STREQ(note(0).Lyric, "ka");
  EXPECT_EQ(note(0).Length, 480);  // "Length=" does not count in 2.0
  EXPECT_STREQ(note(1).Lyric, "ki");
  EXPECT_STREQ(note(2).Lyric, "late");
}

TEST_F(SntRead, VersionsAndTheRunningVersion) {
  // The 1.2 form: lengths count and each Delta is the previous length.
  read(
      "[#VERSION]\nSNT Version1.2\n[#SETTING]\n[#0000]\nLength=240\nLyric=a\n"
      "[#0001]\nLength=480\nLyric=i\n[#0002]\nLength=120\nDelta=100\nLyric=u\n");
  EXPECT_EQ(engine_.sntVersion, 120);
  EXPECT_EQ(note(0).Delta, 0);
  EXPECT_EQ(note(1).Delta, 240);
  EXPECT_EQ(note(1).Length, 480);
  EXPECT_EQ(note(2).Delta, 100);  // an explicit Delta wins

  // An unrecognised version line keeps the running 100: lengths still read.
  read("[#VERSION]\nSNT VersionX.Y\n[#0000]\nLength=240\nLyric=a\n[#0001]\nLyric=i\n");
  EXPECT_EQ(engine_.sntVersion, 100);
  EXPECT_EQ(note(0).Length, 240);
  EXPECT_EQ(note(1).Delta, 240);

  // No version line at all: read as the old form, while sntVersion stays 200.
  read("[#0000]\nLength=240\nLyric=a\n");
  EXPECT_EQ(engine_.sntVersion, 200);
  EXPECT_EQ(note(0).Length, 240);

  // 2.0 notes that carry only "Length=" have length 0.
  readNote("Length=480\n");
  EXPECT_EQ(note(0).Length, 0);
}

TEST_F(SntRead, TempoChangesMoveOntoZeroLengthRests) {
  const int32_t count = read(
      "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\n"
      "[#0000]\nLyric=R\nDuration=480\nTempo=90\nDelta=0\n"
      "[#0001]\nLyric=ka\nDuration=480\nDelta=480\n"
      "[#0002]\nLyric=ki\nDuration=240\nDelta=960\nTempo=140\n");
  EXPECT_EQ(count, 3);  // inserted records are not counted
  ASSERT_EQ(engine_.noteCount, 4);
  EXPECT_EQ(note(0).Length, 0);  // rests lose their length, keep their tempo
  EXPECT_EQ(note(0).Tempo, 90.0f);
  EXPECT_STREQ(note(2).Lyric, "");
  EXPECT_EQ(note(2).Tempo, 140.0f);
  EXPECT_EQ(note(2).Delta, 960);
  EXPECT_EQ(note(2).NoteNum, 48);
  EXPECT_EQ(note(2).Length, 0);
  EXPECT_STREQ(note(3).Lyric, "ki");
  EXPECT_EQ(note(3).Delta, 0);
  EXPECT_EQ(note(3).Tempo, 0.0f);
  EXPECT_EQ(note(3).Length, 240);
}

TEST_F(SntRead, HostileFilesNeverOverrun) {
  EXPECT_EQ(read(""), 0);
  EXPECT_EQ(engine_.noteCount, 0);
  EXPECT_EQ(read(std::string("\0\xff\x01[#\n[#\x80\n\0\0", 12) + std::string(5000, '\xee')), 1);
  EXPECT_EQ(read("[#SETTING]\nVoiceDir=" + std::string(100000, 'v') + "\nOutFile=" + std::string(5000, 'o') +
                 "\nProjectName=" + std::string(3000, 'p') + "\nFlags=" + std::string(3000, 'f') + "\n"),
            0);
  EXPECT_EQ(strlen(engine_.voiceDir), static_cast<size_t>(ctonm2::kVoiceDirSize - 1));
  EXPECT_EQ(strlen(engine_.projectName), static_cast<size_t>(ctonm2::kProjectNameSize - 1));
  EXPECT_EQ(strlen(engine_.flags), static_cast<size_t>(ctonm2::kFlagsSize - 1));
  // A 100,000-byte line arrives in pieces; "Lyric=" inside it starts a new
  // piece only at a 4095-byte boundary, which this one does not.
  EXPECT_EQ(readNote("PBW=" + std::string(100000, '1') + "\nVBR=" + std::string(10000, ',') + "\n"), 1);
  EXPECT_EQ(read("[#0000]\nTimeSignatures=(4/4/0),\n[#SETTING]\nTimeSignatures=" + std::string(200, '(') + "\n"), 1);
  EXPECT_EQ(strlen(timeSignatures_), sizeof timeSignatures_ - 1);
  EXPECT_EQ(read("[#VERSION]\nSNT Version\n[#SETTING]\nTempo=\n"), 0);  // no note, no end
  ctonm2 other;
  EXPECT_EQ(other.read_snt(dir_.file("absent.snt").c_str(), nullptr, 0), -1);
  EXPECT_STREQ(other.charset, "");  // settings reset all the same
}

// "nan" and "inf" read as numbers by strtof; no value of a note may be
// one (a render took a NaN velocity into a buffer size): they, and numbers
// past the float range, leave the field as it was.
TEST_F(SntRead, NumbersThatAreNotFiniteLeaveTheField) {
  readNote(
      "Velocity=nan\nPreUtterance=inf\nStartPoint=-inf\nTempo=1e39\nPBW=nan,5,INF\nPBS=nan;1e40\n"
      "Envelope=0,5,nan,0,100,100,0\n");
  const NoteData& n = note(0);
  EXPECT_EQ(n.Velocity, 100.0f);
  EXPECT_TRUE(std::isnan(n.PreUtterance));  // "not set", as without the key
  EXPECT_EQ(n.StartPoint, 0.0f);
  EXPECT_EQ(n.Tempo, 0.0f);
  ASSERT_EQ(floatListCount(n.PBW), 3);
  for (int i = 1; i <= 3; ++i) EXPECT_TRUE(std::isfinite(n.PBW[i])) << i;
  for (float v : n.Envelope) EXPECT_TRUE(std::isfinite(v));
}

TEST_F(SntRead, ManyNotes) {
  std::string text = "[#VERSION]\nSNT Version2.0\n";
  for (int i = 0; i < 100000; ++i) text += "[#" + std::to_string(i) + "]\nLyric=a\nDuration=10\nDelta=10\n";
  EXPECT_EQ(read(text), 100000);
  EXPECT_EQ(engine_.noteCount, 100000);
  EXPECT_EQ(note(99999).Length, 10);
}
