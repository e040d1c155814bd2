#include "voicebank/freqtable.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "render/wavefile.h"
#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"

namespace {

std::string le32(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string le64(double v) { return std::string(reinterpret_cast<const char*>(&v), 8); }

// A sample file and its table files in a temporary folder.
class FrequencyTables : public ::testing::Test {
 protected:
  void SetUp() override {
    VoiceSignal voice;
    voice.f0 = 220.0;
    voice.seconds = 0.5;
    samples_ = voice.render();
    ASSERT_EQ(saveWaveFile(sample_.c_str(), samples_.data(), static_cast<int32_t>(samples_.size() * 2), 16, 1, 44100),
              0);
  }
  void setTimes(const std::string& path, time_t when) {
    struct utimbuf times = {when, when};
    utime(path.c_str(), &times);
  }
  int32_t frames() const { return static_cast<int32_t>(samples_.size()); }

  TempDir dir_;
  std::string sample_ = dir_.file("ka.wav");
  std::vector<int16_t> samples_;
};

struct Table {
  double* freq = nullptr;
  double* amp = nullptr;
  double average = 0.0;
  ~Table() {
    free(freq);
    free(amp);
  }
};

}  // namespace

TEST(FrequencyTableNames, OnlyLowerCaseWavLosesItsDot) {
  EXPECT_EQ(frequencyTablePath("/v/ka.wav", "frq"), "/v/ka_wav.frq");
  EXPECT_EQ(frequencyTablePath("/v/ka.wav", "frt"), "/v/ka_wav.frt");
  EXPECT_EQ(frequencyTablePath("/v/x.WAV", "frq"), "/v/x.WAV.frq");
  EXPECT_EQ(frequencyTablePath("/v/a.aiff", "frq"), "/v/a.aiff.frq");
  EXPECT_EQ(frequencyTablePath("/v/ka.wav", "f0"), "/v/ka.wav.f0");
}

TEST_F(FrequencyTables, GeneratedOnceThenRead) {
  Table made;
  made.freq = initFrequenciesList(&made.amp, &made.average, sample_.c_str(), "-", samples_.data(), frames(), 44100, 1,
                                  2048, 256);
  ASSERT_NE(made.freq, nullptr);
  EXPECT_NEAR(made.average, 220.0, 2.0);
  const int32_t count = frames() / 256 + 1;
  EXPECT_EQ(made.freq[count], made.freq[count - 1]);  // the extra element repeats the last
  ASSERT_TRUE(fileExists(dir_.file("ka_wav.frq")));
  EXPECT_EQ(readFile(dir_.file("ka_wav.frq")).size(), 40u + 16u * static_cast<size_t>(count));

  Table read;
  ASSERT_EQ(readFrequenciesList(sample_.c_str(), &read.freq, &read.amp, &read.average, 256), count);
  EXPECT_EQ(read.average, made.average);
  EXPECT_EQ(0, memcmp(read.freq, made.freq, sizeof(double) * (static_cast<size_t>(count) + 1)));
  EXPECT_EQ(0, memcmp(read.amp, made.amp, sizeof(double) * static_cast<size_t>(count)));
  Table wrongStep;
  EXPECT_EQ(readFrequenciesList(sample_.c_str(), &wrongStep.freq, &wrongStep.amp, &wrongStep.average, 512), 0);
}

TEST_F(FrequencyTables, StaleUnlessWriteProtected) {
  const double freq[3] = {100.0, 200.0, 200.0}, amp[3] = {1.0, 2.0, 2.0};
  ASSERT_EQ(writeFrequenciesList(sample_.c_str(), freq, amp, 2, 150.0, 256), 1);
  const std::string table = dir_.file("ka_wav.frq");
  setTimes(table, 1000000);
  setTimes(sample_, 2000000);  // the sample is newer
  Table t;
  EXPECT_EQ(readFrequenciesList(sample_.c_str(), &t.freq, &t.amp, &t.average, 256), 0);
  chmod(table.c_str(), 0444);  // a protected table is trusted however old
  EXPECT_EQ(readFrequenciesList(sample_.c_str(), &t.freq, &t.amp, &t.average, 256), 2);
  EXPECT_EQ(t.freq[2], 200.0);
  EXPECT_EQ(t.average, 150.0);
  chmod(table.c_str(), 0644);
}

TEST_F(FrequencyTables, WrongStepRegeneratesAndOverwrites) {
  const double freq[2] = {1.0, 1.0}, amp[2] = {1.0, 1.0};
  ASSERT_EQ(writeFrequenciesList(sample_.c_str(), freq, amp, 1, 1.0, 512), 1);
  Table t;
  t.freq =
      initFrequenciesList(&t.amp, &t.average, sample_.c_str(), "-", samples_.data(), frames(), 44100, 1, 2048, 256);
  ASSERT_NE(t.freq, nullptr);
  EXPECT_NEAR(t.average, 220.0, 2.0);
  Table again;
  EXPECT_EQ(readFrequenciesList(sample_.c_str(), &again.freq, &again.amp, &again.average, 256), frames() / 256 + 1);
}

TEST_F(FrequencyTables, AShortTrustedTableIsUsedAsItIs) {
  // A hand-made table of ten frames for a longer sample: used, never made
  // again; past its end the frames read as unvoiced and silent.
  const std::vector<double> freq(10, 100.0), amp(10, 1.0);
  ASSERT_EQ(writeFrequenciesList(sample_.c_str(), freq.data(), amp.data(), 10, 100.0, 256), 1);
  const std::string stored = readFile(dir_.file("ka_wav.frq"));
  Table t;
  t.freq =
      initFrequenciesList(&t.amp, &t.average, sample_.c_str(), "-", samples_.data(), frames(), 44100, 1, 2048, 256);
  ASSERT_NE(t.freq, nullptr);
  EXPECT_EQ(t.average, 100.0);
  EXPECT_EQ(t.freq[9], 100.0);
  for (int32_t k = 10; k <= frames() / 256 + 1; ++k) {  // as far as readers look
    ASSERT_EQ(t.freq[k], 0.0) << k;
    ASSERT_EQ(t.amp[k], 0.0) << k;
  }
  EXPECT_EQ(readFile(dir_.file("ka_wav.frq")), stored);  // left as it was
}

TEST_F(FrequencyTables, BinaryTableLayout) {
  // Little-endian: magic, step, average, 16 reserved bytes, count, then
  // (frequency, amplitude) pairs.
  const double freq[2] = {220.5, 221.25}, amp[2] = {1000.0, 2000.0};
  ASSERT_EQ(writeFrequenciesList(sample_.c_str(), freq, amp, 2, 220.75, 256), 1);
  const std::string bytes = readFile(dir_.file("ka_wav.frq"));
  ASSERT_EQ(bytes.size(), 40u + 2 * 16);
  EXPECT_EQ(bytes.substr(0, 8), "FREQ0003");
  auto number = [&](size_t at) {
    double value;
    memcpy(&value, bytes.data() + at, 8);
    return value;
  };
  int32_t step = 0, count = 0;
  memcpy(&step, bytes.data() + 8, 4);
  memcpy(&count, bytes.data() + 36, 4);
  EXPECT_EQ(step, 256);
  EXPECT_EQ(number(12), 220.75);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(number(40), 220.5);
  EXPECT_EQ(number(48), 1000.0);
  EXPECT_EQ(number(56), 221.25);
  EXPECT_EQ(number(64), 2000.0);
}

TEST_F(FrequencyTables, TextDumpWrittenAndConvertedOnFirstUse) {
  Table t;
  t.freq =
      initFrequenciesList(&t.amp, &t.average, sample_.c_str(), "GT", samples_.data(), frames(), 44100, 1, 2048, 256);
  ASSERT_NE(t.freq, nullptr);
  const std::string text = readFile(dir_.file("ka_wav.frt"));
  EXPECT_EQ(text.rfind("frequencies list Ver0.03\nfreq_avg: ", 0), 0u);
  EXPECT_NE(text.find("step: 256\nlength: " + std::to_string(frames() / 256 + 1) + "\n\n"), std::string::npos);

  // Without the binary table, the text one is read and turned into it.
  remove(dir_.file("ka_wav.frq").c_str());
  Table fromText;
  fromText.freq = initFrequenciesList(&fromText.amp, &fromText.average, sample_.c_str(), "-", samples_.data(), frames(),
                                      44100, 1, 2048, 256);
  ASSERT_NE(fromText.freq, nullptr);
  EXPECT_TRUE(fileExists(dir_.file("ka_wav.frq")));
  EXPECT_NEAR(fromText.average, t.average, 1e-5);
  EXPECT_NEAR(fromText.freq[40], t.freq[40], 1e-5);
}

TEST_F(FrequencyTables, HostileTablesAreUnusable) {
  const std::string frq = dir_.file("ka_wav.frq");
  const std::string header = std::string("FREQ0003") + le32(256) + le64(200.0) + std::string(16, '\0');
  Table t;
  for (const std::string& bytes : {header + le32(-5), header + le32(1000000) + std::string(32, '\0'), header + le32(0),
                                   std::string("FREQ0002") + header.substr(8) + le32(1), header.substr(0, 20)}) {
    writeFile(frq, bytes);
    EXPECT_EQ(readFrequenciesList(sample_.c_str(), &t.freq, &t.amp, &t.average, 256), 0);
  }
  const std::string frt = dir_.file("ka_wav.frt");
  for (const std::string& text : {std::string("frequencies list Ver0.03\nstep: 256\nlength: 3\n"),  // no blank line
                                  std::string("frequencies list Ver0.03\nstep: 256\nlength: 99\n\n1\t2Hz\n"),
                                  std::string("frequencies list Ver0.03\nstep: 128\nlength: 1\n\n1\t2Hz\n"),
                                  std::string("frequencies list Ver0.03\nstep: 256\nlength: 0\n\n"),
                                  std::string("frequencies list Ver0.02\n"), std::string()}) {
    writeFile(frt, text);
    EXPECT_EQ(readFrequenciesText(sample_.c_str(), &t.freq, &t.amp, &t.average, 256), 0);
  }
  EXPECT_EQ(t.freq, nullptr);  // nothing handed over
  writeFile(frt,
            "frequencies list Ver0.03\nfreq_avg: 123.5Hz (x)\nstep: 256\nlength: 2\n\n0.5\t100Hz\t(x)\n0.25\t0Hz\n");
  ASSERT_EQ(readFrequenciesText(sample_.c_str(), &t.freq, &t.amp, &t.average, 256), 2);
  EXPECT_EQ(t.average, 123.5);
  EXPECT_EQ(t.amp[1], 0.25);
  EXPECT_EQ(t.freq[0], 100.0);
  // Values that are no numbers read as 0, in either form.
  writeFile(frt, "frequencies list Ver0.03\nfreq_avg: nanHz\nstep: 256\nlength: 2\n\ninf\t100Hz\n0.25\tnanHz\n");
  Table text;
  ASSERT_EQ(readFrequenciesText(sample_.c_str(), &text.freq, &text.amp, &text.average, 256), 2);
  EXPECT_EQ(text.average, 0.0);
  EXPECT_EQ(text.amp[0], 0.0);
  EXPECT_EQ(text.freq[1], 0.0);
  writeFile(frq, header.substr(0, 12) + le64(NAN) + std::string(16, '\0') + le32(1) + le64(INFINITY) + le64(NAN));
  Table binary;
  ASSERT_EQ(readFrequenciesList(sample_.c_str(), &binary.freq, &binary.amp, &binary.average, 256), 1);
  EXPECT_EQ(binary.average, 0.0);
  EXPECT_EQ(binary.freq[0], 0.0);
  EXPECT_EQ(binary.amp[0], 0.0);
}

TEST_F(FrequencyTables, ValueTableAndDisplayCurve) {
  const std::string f0 = dir_.file("ka.wav.f0");
  writeFile(f0, std::string("F0TBL003") + le32(5) + le64(1.5) + le64(2.5));  // claims 5, holds 2
  double* values = nullptr;
  ASSERT_EQ(readSpecTable(sample_.c_str(), &values), 2);
  EXPECT_EQ(values[1], 2.5);
  free(values);
  writeFile(f0, std::string("F0TBL002") + le32(1) + le64(1.0));
  EXPECT_EQ(readSpecTable(sample_.c_str(), &values), 0);

  const double freq[3] = {220.0, 50.0, 440.0}, amp[3] = {1, 1, 1};
  writeFrequenciesList(sample_.c_str(), freq, amp, 3, 220.0, 256);
  int32_t count = 0;
  double* curve = readFreq(sample_.c_str(), &count);
  ASSERT_NE(curve, nullptr);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(curve[0], 0.0);
  EXPECT_TRUE(std::isinf(curve[1]) && curve[1] < 0);  // 55 Hz or lower: no pitch
  EXPECT_EQ(curve[2], 1.0);
  EXPECT_EQ(curve[3], 1.0);
  free(curve);
}
