#include "render/resampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/render/vowel_note.h"
#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

namespace {

// A steady 220 Hz vowel of 2 s (peak 8000) as a sample, with its table.
class Resampler : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new TempDir;
    VoiceSignal voice;
    voice.f0 = 220.0;
    voice.seconds = 2.0;
    voice.peak = 8000.0;
    path_ = new std::string(folder_->file("a.wav"));
    voice.writeWave(path_->c_str());
    init_render(44100);
    generateAnlyzeFiles(path_->c_str(), 0);
  }
  static void TearDownTestSuite() {
    delete path_;
    delete folder_;
  }
  void SetUp() override { setUpVowelNote(&entry_, &note_); }
  std::vector<double> render(float lengthMs, ResampError* error = nullptr, const std::string* path = nullptr) {
    int32_t count = 0;
    double* values = resamp((path != nullptr ? path : path_)->c_str(), &note_, lengthMs, &count, 120.0f, error);
    std::vector<double> out(values, values + (values != nullptr ? count : 0));
    free(values);
    return out;
  }
  // A second of the vowel as sample `name`, with a table whose frames are
  // frame(k) and whose average is `average`.
  static std::string withTable(const char* name, double average, const std::function<double(size_t)>& frame) {
    VoiceSignal voice;
    voice.seconds = 1.0;
    const std::string path = folder_->file(name);
    if (!fileExists(path)) voice.writeWave(path.c_str());
    const int32_t count = static_cast<int32_t>(voice.frames()) / 256 + 1;
    std::vector<double> frequencies(static_cast<size_t>(count) + 1), amplitudes(frequencies.size(), 1.0);
    for (size_t k = 0; k < frequencies.size(); ++k) frequencies[k] = frame(k);
    EXPECT_EQ(writeFrequenciesList(path.c_str(), frequencies.data(), amplitudes.data(), count, average, 256), 1);
    return path;
  }
  // The output's frequency table, frame by frame.
  static std::vector<double> pitchOf(const std::vector<double>& out) {
    std::vector<int16_t> words(out.size());
    for (size_t k = 0; k < out.size(); ++k) words[k] = static_cast<int16_t>(std::clamp(out[k], -32767.0, 32767.0));
    double* amplitudes = nullptr;
    double average = 0.0;
    const int32_t frames = static_cast<int32_t>(words.size());
    double* f = bcfGetFrequencyList(&amplitudes, &average, frames, frames / 256, 44100, 1, words.data(), "");
    std::vector<double> result(f, f + (f != nullptr ? frames / 256 + 1 : 0));
    free(f);
    free(amplitudes);
    return result;
  }
  // The largest distance in cents from `target` over the middle half.
  static double worstCents(const std::vector<double>& pitch, double target) {
    double worst = 0.0;
    for (size_t k = pitch.size() / 4; k < pitch.size() * 3 / 4; ++k) {
      worst = std::max(worst, pitch[k] > 0.0 ? std::fabs(1200.0 * std::log2(pitch[k] / target)) : 1e9);
    }
    return worst;
  }
  // The level of `shaped` against `plain` over samples from..to (RMS ratio).
  static double gain(const std::vector<double>& shaped, const std::vector<double>& plain, size_t from, size_t to) {
    double a = 0.0, b = 0.0;
    for (size_t k = from; k < to; ++k) a += shaped[k] * shaped[k], b += plain[k] * plain[k];
    return std::sqrt(a / b);
  }
  static double peakOf(const std::vector<double>& out) {
    double peak = 0.0;
    for (double v : out) peak = std::max(peak, std::fabs(v));
    return peak;
  }

  static TempDir* folder_;
  static std::string* path_;
  VoiceData entry_;
  NoteData note_;
};

TempDir* Resampler::folder_ = nullptr;
std::string* Resampler::path_ = nullptr;

}  // namespace

namespace {
class ResamplerShift : public Resampler, public ::testing::WithParamInterface<int> {};

TEST_P(ResamplerShift, SteadyPartSingsTheNote) {
  note_.NoteNum = static_cast<int16_t>(57 + GetParam());
  const std::vector<double> out = render(1000.0f);
  ASSERT_FALSE(out.empty());
  EXPECT_LT(worstCents(pitchOf(out), num2freq(note_.NoteNum)), 10.0);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Semitones, ResamplerShift, ::testing::Values(-5, -2, 0, 3, 7, 12));

// A vowel sung as voices are (each cycle a little longer or shorter,
// louder or softer, and a slow drift) is flattened onto the note at
// modulation 0: within 3 cents on average and 10 at worst over 50 ms,
// also when its table jitters from frame to frame as the voice does not
// (the read tracks the periods on the signal, not the table's values).
TEST_F(Resampler, AWaveringVowelIsSungFlatAtModulationZero) {
  VoiceSignal voice;
  voice.f0 = 220.0;
  voice.seconds = 1.6;
  voice.jitter = 0.01;
  voice.shimmer = 0.05;
  voice.vibratoCents = 20.0;
  voice.vibratoRate = 0.8;
  const std::string path = folder_->file("wavering.wav");
  ASSERT_TRUE(voice.writeWave(path, 3));
  generateAnlyzeFiles(path.c_str(), 0);
  note_.Modulation = 0;
  for (double tableJitter : {0.0, 25.0}) {
    if (tableJitter > 0.0) {
      ASSERT_TRUE(jitterTable(path.c_str(), tableJitter, 5));
    }
    for (int shift : {-7, 0, 12}) {
      note_.NoteNum = static_cast<int16_t>(57 + shift);
      int32_t count = 0;
      double* out = resamp(path.c_str(), &note_, 2000.0f, &count, 120.0f);
      ASSERT_NE(out, nullptr);
      const PitchDistance d = pitchDistance(out, count, num2freq(note_.NoteNum));
      free(out);
      ASSERT_GT(d.frames, 50u);
      EXPECT_LT(d.mean, 1.5) << shift << " " << tableJitter;
      EXPECT_LT(d.worst, 5.0) << shift << " " << tableJitter;
    }
  }
}

TEST_F(Resampler, PitchCurvesMoveThePitch) {
  std::vector<int16_t> up(200, 100);  // +100 cents on the tempo grid
  note_.Pitches = up.data();
  note_.PitchCount = static_cast<int32_t>(up.size());
  EXPECT_LT(worstCents(pitchOf(render(1000.0f)), num2freq(58)), 10.0);
  note_.Pitches = nullptr;
  note_.PitchCount = 0;
  // A float curve on the 256-sample grid takes precedence over the list.
  std::vector<float> down(400, -200.0f);
  note_._pitch = down.data();
  note_._pitchlen = static_cast<int32_t>(down.size());
  note_.Pitches = up.data();
  note_.PitchCount = static_cast<int32_t>(up.size());
  EXPECT_LT(worstCents(pitchOf(render(1000.0f)), num2freq(55)), 10.0);
  // The t flag transposes by tenths of a semitone, on top of the curve.
  strcpy(note_.Flags, "t-15");
  EXPECT_LT(worstCents(pitchOf(render(1000.0f)), 220.0 * std::pow(2.0, -3.5 / 12.0)), 10.0);
}

TEST_F(Resampler, LengthsFollowTheFormula) {
  // With a length: the target in samples, (length + 1) ms, whether the
  // sample is stretched or compressed, with or without a consonant.
  for (float length : {300.0f, 1000.0f, 3000.0f}) {
    for (float consonant : {0.0f, 2.0f, 80.0f}) {  // 2 ms is under 128 samples: no consonant
      entry_.fixed = consonant;
      EXPECT_EQ(render(length).size(), static_cast<size_t>((length + 1.0) / 1000.0 * 44100.0 + 0.5))
          << length << " " << consonant;
    }
  }
  // A start point shortens the target by itself.
  note_._stp = 40.0f;
  EXPECT_EQ(render(1000.0f).size(), static_cast<size_t>(961.0 / 1000.0 * 44100.0 + 0.5));
  note_._stp = 0.0f;

  // Without a length: the usable stretch, the part after the consonant
  // lengthened by the velocity factor.
  const int32_t usable = 88200 - 4410 - 4410;  // 2 s less the offset and the blank
  entry_.fixed = 80.0f;
  const int32_t fixedIn = static_cast<int32_t>(44100 * 80.0 / 1000.0);
  EXPECT_EQ(render(0.0f).size(), static_cast<size_t>(usable));
  note_.Velocity = 200.0f;
  EXPECT_EQ(render(0.0f).size(), static_cast<size_t>(std::trunc((usable - fixedIn) * 2.0 + fixedIn + 0.5)));
  note_.Velocity = 100.0f;
  // A note that ends inside its consonant.
  entry_.fixed = 500.0f;
  EXPECT_EQ(render(99.0f).size(), static_cast<size_t>(100.0 / 1000.0 * 44100.0 + 0.5));
}

TEST_F(Resampler, SamplesAtOtherRatesComeOutAtTheLengthAsked) {
  for (int32_t rate : {22050, 48000}) {
    VoiceSignal voice;
    voice.f0 = 220.0;
    voice.seconds = 2.0;
    voice.rate = rate;
    const std::string path = folder_->file("rate" + std::to_string(rate) + ".wav");
    voice.writeWave(path.c_str());
    generateAnlyzeFiles(path.c_str(), 0);
    for (float consonant : {0.0f, 80.0f}) {
      entry_.fixed = consonant;
      int32_t count = 0;
      double* values = resamp(path.c_str(), &note_, 500.0f, &count, 120.0f, nullptr);
      free(values);
      EXPECT_NEAR(count, 501.0 / 1000.0 * 44100.0, 2.0) << rate << " Hz, consonant " << consonant;
    }
  }
}

TEST_F(Resampler, NormalisationAndVolume) {
  const double untouched = peakOf(render(800.0f, nullptr));  // P86 by default
  strcpy(note_.Flags, "P0");
  const double raw = peakOf(render(800.0f));
  EXPECT_NEAR(raw, 8000.0, 2000.0);  // the sample's own level
  EXPECT_NEAR(untouched, std::pow(16384.0 / raw, 0.86) * raw, 1.0);
  strcpy(note_.Flags, "P100");
  EXPECT_NEAR(peakOf(render(800.0f)), 16384.0, 1e-6);
  note_.Intensity = 50;
  EXPECT_NEAR(peakOf(render(800.0f)), 8192.0, 1e-6);
}

// The expression curve of the environment shapes the note to its last
// point: at 120 BPM a point every 230 samples, all 0 (a gain of 1) but the
// last two, -2000 (a gain of 0.1).
TEST_F(Resampler, TheEnvironmentsExpressionCurveReachesTheNotesEnd) {
  strcpy(note_.Flags, "P0N");
  const std::vector<double> plain = render(800.0f);
  const size_t n = plain.size();
  ASSERT_GT(n, 20000u);
  const std::string curve = "120 AA#" + std::to_string(n / 230 - 2) + "#gwgw";
  ScopedEnv expression("expression", curve.c_str());
  const std::vector<double> shaped = render(800.0f);
  ASSERT_EQ(shaped.size(), n);
  EXPECT_NEAR(gain(shaped, plain, n / 4, n / 2), 1.0, 1e-9);
  EXPECT_NEAR(gain(shaped, plain, n - 200, n), 0.1, 0.005);
}

// The note's own expression values, one a pitch step (230 samples at 120
// BPM, also with a pitch curve of no points): the last holds over its own
// step, and past it the note is as it is.
TEST_F(Resampler, TheNotesExpressionHoldsItsLastValueOverItsStep) {
  strcpy(note_.Flags, "P0N");
  const std::vector<double> plain = render(800.0f);
  int16_t tenth[3] = {-1024, -1024, -1024};  // 10^(-1024 / 1024)
  float noPoints[1] = {0.0f};
  for (float* curve : {static_cast<float*>(nullptr), noPoints}) {
    note_.Exprs = tenth;
    note_.ExprsCount = 3;
    note_._pitch = curve;
    note_._pitchlen = 0;
    const std::vector<double> shaped = render(800.0f);
    note_.Exprs = nullptr;
    note_.ExprsCount = 0;
    note_._pitch = nullptr;
    ASSERT_EQ(shaped.size(), plain.size());
    EXPECT_NEAR(gain(shaped, plain, 0, 440), 0.1, 0.01);
    EXPECT_NEAR(gain(shaped, plain, 480, 680), 0.1, 0.01);
    EXPECT_NEAR(gain(shaped, plain, 700, 760), 1.0, 0.01);
    EXPECT_NEAR(gain(shaped, plain, 1000, 4000), 1.0, 0.01);
  }
}

// A table's frames at 55 Hz or below are all alike: none is trusted, and
// the note is the same whichever they hold.
TEST_F(Resampler, FramesAt55HzOrBelowAreAllAlike) {
  std::vector<std::vector<double>> outs;
  for (const double low : {55.0, 30.0}) {
    const std::string path = withTable("low.wav", 220.0, [&](size_t k) { return k % 3 == 0 ? low : 220.0; });
    outs.push_back(render(600.0f, nullptr, &path));
    ASSERT_FALSE(outs.back().empty());
  }
  EXPECT_TRUE(outs[0] == outs[1]);
}

// "c" without a number is a hundredth of the default smoothing (0.5 %),
// the same note as c0.5 and not c0.
TEST_F(Resampler, ASmoothingFlagWithoutANumberIsAHundredthOfTheDefault) {
  strcpy(note_.Flags, "c");
  const std::vector<double> alone = render(400.0f);
  strcpy(note_.Flags, "c0.5");
  EXPECT_TRUE(render(400.0f) == alone);
  strcpy(note_.Flags, "c0");
  EXPECT_FALSE(render(400.0f) == alone);
}

TEST_F(Resampler, SawtoothAtTheTargetPitch) {
  strcpy(note_.Flags, "WP100");
  note_.NoteNum = 62;
  const std::vector<double> out = render(800.0f);
  EXPECT_LT(worstCents(pitchOf(out), num2freq(62)), 10.0);
  // A ramp: most steps are small rises, a few are large falls.
  int rises = 0, falls = 0;
  for (size_t k = out.size() / 4; k + 1 < out.size() * 3 / 4; ++k) {
    rises += out[k + 1] > out[k];
    falls += out[k + 1] < out[k] - 4000.0;
  }
  EXPECT_GT(rises, 20 * falls);
  EXPECT_GT(falls, 10);
}

TEST_F(Resampler, FailuresSayWhy) {
  ResampError error = ResampError::kNone;
  entry_.offset = 5000.0f;  // past the end of a 2 s sample
  EXPECT_TRUE(render(500.0f, &error).empty());
  EXPECT_EQ(error, ResampError::kNotEnoughSamples);
  EXPECT_STREQ(resampErrorText(error), "Parameter error. Not enough samples.");
  int32_t count = 7;
  EXPECT_EQ(resamp(folder_->file("absent.wav").c_str(), &note_, 500.0f, &count, 120.0f, &error), nullptr);
  EXPECT_EQ(error, ResampError::kLoad);
  EXPECT_EQ(count, 0);
  const std::string out = folder_->file("never.wav");
  EXPECT_EQ(::render(path_->c_str(), out.c_str(), &note_, 500.0f, 120.0f), -1);
  EXPECT_FALSE(fileExists(out));
}

// A frequency table is a file anyone can write: one whose average is 0,
// not a number or absurd, or whose frames are, must give a note of finite
// samples (silence at worst) and never an undefined read.
TEST_F(Resampler, HostileFrequencyTablesGiveFiniteNotes) {
  const double nan = std::nan("");
  for (const double average : {0.0, nan, 1e300, 220.0}) {
    for (const double frame : {220.0, nan, 1e300, -5.0}) {
      SCOPED_TRACE(std::to_string(average) + " " + std::to_string(frame));
      const std::string path = withTable("hostile.wav", average, [&](size_t) { return frame; });
      for (const char* flags : {"", "N", "g-30B80"}) {
        strcpy(note_.Flags, flags);
        for (double v : render(400.0f, nullptr, &path)) ASSERT_TRUE(std::isfinite(v)) << flags;
      }
    }
  }
}

// Timings from an oto entry or a note can be anything a file holds: each
// absurd one gives a note of finite samples, or an empty one, never an
// undefined conversion or a buffer the size of the number.
TEST_F(Resampler, HostileTimingsGiveFiniteNotes) {
  for (int field = 0; field < 6; ++field) {
    for (const float value : {1e30f, -1e30f, 3e9f}) {
      SCOPED_TRACE(std::to_string(field) + " " + std::to_string(value));
      setUpVowelNote(&entry_, &note_);
      float length = 400.0f, tempo = 120.0f;
      if (field == 0) entry_.offset = value;
      if (field == 1) entry_.fixed = value;
      if (field == 2) entry_.blank = value;
      if (field == 3) note_._stp = value;
      if (field == 4) note_.Velocity = value;
      if (field == 5) tempo = 1.0f / value, length = value;
      int32_t count = 0;
      double* values = resamp(path_->c_str(), &note_, length, &count, tempo);
      EXPECT_LT(count, 44100 * 60);
      for (int32_t k = 0; values != nullptr && k < count; ++k) ASSERT_TRUE(std::isfinite(values[k])) << k;
      free(values);
    }
  }
}

TEST_F(Resampler, RenderWritesASixteenBitFile) {
  const std::string out = folder_->file("note.wav");
  ASSERT_EQ(::render(path_->c_str(), out.c_str(), &note_, 500.0f, 120.0f), 0);
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t bytes = 0;
  int16_t* words = loadWaveFile(out.c_str(), &format, 0, &bytes);
  ASSERT_NE(words, nullptr);
  free(words);
  EXPECT_EQ(format.sampleRate, 44100u);
  EXPECT_EQ(format.channels, 1);
  EXPECT_EQ(bytes, 2 * static_cast<int32_t>(501.0 / 1000.0 * 44100.0 + 0.5));
}

TEST(CurveEncoding, PairsRunsAndCapacity) {
  EXPECT_EQ(get64('A'), 0);
  EXPECT_EQ(get64('z'), 51);
  EXPECT_EQ(get64('9'), 61);
  EXPECT_EQ(get64('/'), 63);
  EXPECT_EQ(get64('!'), 0);
  int32_t values[8];
  // "AB" = 1, "//" = 4095 - 4096 = -1, "gA" = 32 * 64 = 2048 - 4096, a run of 3.
  ASSERT_EQ(decpit("AB//gA#3#AC", values, 8), 7);
  EXPECT_EQ(values[0], 1);
  EXPECT_EQ(values[1], -1);
  EXPECT_EQ(values[2], -2048);
  EXPECT_EQ(values[3], -2048);
  EXPECT_EQ(values[5], -2048);
  EXPECT_EQ(values[6], 2);
  EXPECT_EQ(decpit("ABABABAB", values, 2), 2);  // the rest is dropped
  EXPECT_EQ(decpit(nullptr, values, 8), 0);
  int32_t count = 0;
  int16_t* grown = decpit2("AC#2", &count);  // a run without its closing "#" ends the text
  ASSERT_EQ(count, 3);
  EXPECT_EQ(grown[2], 2);
  free(grown);
  EXPECT_EQ(decpit2(nullptr, &count), nullptr);
  EXPECT_EQ(count, 0);
}

TEST(SplineRead, CoefficientsSitFurtherOn) {
  std::vector<double> a = {10.0, 20.0, 30.0};
  std::vector<double> b(1412, 0.0), c(1412, 0.0), d(1412, 0.0);
  b[1408 + 1] = 4.0;
  c[1408 + 1] = 2.0;
  d[1408 + 1] = 1.0;
  // x = 6.5 with base 5: k = 1, t = 0.5: a[1] + 4 t + 2 t^2 + t^3.
  EXPECT_DOUBLE_EQ(current_value(6.5, 5, a.data(), b.data(), c.data(), d.data()), 20.0 + 2.0 + 0.5 + 0.125);
}

TEST(WindowedSinc, IntegerPositionsConstantsAndTheFirstChannel) {
  std::vector<int16_t> samples = {0, 100, 200, 300, 400, 500, 600, 700, 800};
  // At an integer position the taps at the other integers have weight 0.
  EXPECT_NEAR(target_value(4.0, samples.data(), 1.0, 1), 400.0, 1e-9);
  // The weights are normalised: a constant reads as itself anywhere...
  const std::vector<int16_t> constant(16, 1000);
  EXPECT_NEAR(target_value(6.37, constant.data(), 1.3, 1), 1000.0, 1e-9);
  // ...except where taps fall before the start: they add nothing, but their
  // weight (here the negative side lobe at -1) still counts.
  EXPECT_NEAR(target_value(0.5, constant.data(), 1.0, 1), 1080.09, 0.01);
  // Stereo: the first channel only.
  std::vector<int16_t> stereo = {10, -1, 20, -1, 30, -1, 40, -1, 50, -1};
  EXPECT_NEAR(target_value(2.0, stereo.data(), 1.0, 2), 30.0, 1e-9);
}
