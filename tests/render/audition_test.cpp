// A note heard alone: its length, pitch, fades and the clips kept.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "render/audition.h"
#include "render/resampler.h"
#include "tests/engine/notes.h"
#include "tests/render/vowel_note.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

namespace {

// A 1.5 s vowel "a" at 220 Hz: 50 ms offset, 40 ms pre-utterance.
class AuditionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bank_ = new TestBank;
    writeAnalysedVowels(*bank_, {"a"});
  }
  static void TearDownTestSuite() { delete bank_; }
  void SetUp() override { ASSERT_GT(voices_.read_voiceset(bank_->path().c_str()), 0); }

  std::vector<int16_t> sing(const NoteData& note, double lengthMs) {
    error_.clear();
    return audition_.sing(&voices_, bank_->folder().c_str(), note, lengthMs, &error_);
  }

  static TestBank* bank_;
  cvoiceset voices_;
  Audition audition_;
  std::string error_;
};

TestBank* AuditionTest::bank_ = nullptr;

double rms(const std::vector<int16_t>& s, size_t from, size_t to) {
  double sum = 0.0;
  for (size_t k = from; k < to; ++k) sum += static_cast<double>(s[k]) * s[k];
  return std::sqrt(sum / static_cast<double>(to - from));
}

}  // namespace

TEST_F(AuditionTest, TheClipIsTheConsonantAndTheNoteCutToHalfASecondAtTheNotesPitch) {
  // 40 ms of consonant and 100 ms of note; a long note stops at 500 ms.
  // Consonant velocity 200 halves the consonant.
  struct Case {
    int noteNum;
    float velocity;
    double lengthMs, clipMs;
  };
  for (const Case& c : {Case{57, 100.0f, 100.0, 140.0}, Case{64, 100.0f, 2000.0, 500.0}, Case{69, 200.0f, 100.0, 120.0},
                        Case{60, NAN, 300.0, 340.0}}) {
    NoteData note = makeNote("a", c.noteNum, 0, 480);
    note.Velocity = c.velocity;
    const std::vector<int16_t> clip = sing(note, c.lengthMs);
    ASSERT_EQ(clip.size(), static_cast<size_t>(std::lround(c.clipMs * 44.1))) << c.noteNum << " " << error_;
    const double f = averagePitch(std::vector<int16_t>(clip.begin() + 1500, clip.end() - 1800));
    EXPECT_NEAR(1200.0 * std::log2(f / num2freq(c.noteNum)), 0.0, 15.0) << c.noteNum;
    // Both ends fade: no click where the clip starts or is cut.
    EXPECT_EQ(clip.front(), 0);
    EXPECT_LE(std::abs(clip.back()), 200);
    EXPECT_LT(rms(clip, 0, 40), rms(clip, 1000, 2000) / 4.0) << c.noteNum;
    EXPECT_LT(rms(clip, clip.size() - 40, clip.size()), rms(clip, 1000, 2000) / 4.0) << c.noteNum;
  }
}

// The clip is the note as the resampler sings it alone (40 ms of
// consonant and the length asked for), faded in over 5 ms and out over the
// last 40 ms, to silence on its last sample.
TEST_F(AuditionTest, TheClipIsTheResampledNoteWithItsFades) {
  NoteData note = makeNote("a", 60, 0, 480);
  const std::vector<int16_t> clip = sing(note, 300.0);
  NoteData alone;
  memset(&alone, 0, sizeof alone);
  alone.NoteNum = 60;
  alone.Velocity = 100.0f;
  alone.Intensity = note.Intensity;
  alone.Modulation = note.Modulation;
  alone.VoiceFile = voices_.get_voicedata(nullptr, "a", 60)->filename;
  int32_t count = 0;
  double* raw = resamp((bank_->folder() + "a.wav").c_str(), &alone, 340.0f + 35.0f, &count, 120.0f);
  ASSERT_NE(raw, nullptr);
  const size_t wanted = static_cast<size_t>(std::lround(340.0 * 44.1));
  ASSERT_EQ(clip.size(), wanted);
  ASSERT_GE(count, static_cast<int32_t>(wanted));
  const double in = Audition::kFadeInMs * 44.1, out = Audition::kFadeOutMs * 44.1;
  for (size_t k = 0; k < wanted; ++k) {
    const double level = std::min({1.0, k / in, (wanted - 1 - k) / out});
    ASSERT_EQ(clip[k], std::lround(raw[k] * level)) << k;
  }
  free(raw);
}

TEST_F(AuditionTest, AClipIsKeptUntilWhatShapesItChanges) {
  NoteData note = makeNote("a", 60, 0, 480);
  const std::vector<int16_t> first = sing(note, 300.0);
  ASSERT_FALSE(first.empty()) << error_;
  EXPECT_EQ(sing(note, 300.0), first);
  EXPECT_EQ(audition_.rendered(), 1);
  EXPECT_EQ(audition_.reused(), 1);
  note.NoteNum = 62;
  EXPECT_NE(sing(note, 300.0), first);
  note.NoteNum = 60;
  strcpy(note.Flags, "g-5");
  EXPECT_NE(sing(note, 300.0), first);
  EXPECT_EQ(audition_.rendered(), 3);
  // A table made again is a new clip, though every value is the same.
  note.Flags[0] = '\0';
  const std::string table = frequencyTablePath((bank_->folder() + "a.wav").c_str(), "frq");
  struct utimbuf times = {1000000000, 1000000000};
  ASSERT_EQ(utime(table.c_str(), &times), 0);
  EXPECT_EQ(sing(note, 300.0), first);
  EXPECT_EQ(audition_.rendered(), 4);
  // Only the last clips are kept.
  for (int k = 0; k < static_cast<int>(Audition::kKeep); ++k) sing(note, 100.0 + k);
  sing(note, 300.0);
  EXPECT_EQ(audition_.rendered(), 5 + static_cast<int>(Audition::kKeep));
}

TEST_F(AuditionTest, ARestOrALyricTheBankCannotSingIsNoClip) {
  EXPECT_TRUE(sing(makeNote("R", 60, 0, 480), 300.0).empty());
  EXPECT_EQ(error_, "a rest has no sound");
  EXPECT_TRUE(sing(makeNote("zz", 60, 0, 480), 300.0).empty());
  EXPECT_EQ(error_, "no voice for \"zz\"");
  // An entry whose sample is gone.
  TestBank other;
  other.write("oto.ini", "gone.wav=a,50,60,-1400,40,10\n");
  cvoiceset voices;
  ASSERT_GT(voices.read_voiceset(other.path().c_str()), 0);
  std::string error;
  EXPECT_TRUE(audition_.sing(&voices, other.folder().c_str(), makeNote("a", 60, 0, 480), 300.0, &error).empty());
  EXPECT_EQ(error.rfind("cannot sing \"a\": ", 0), 0u) << error;
}
