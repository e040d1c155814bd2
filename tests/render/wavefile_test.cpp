#include "render/wavefile.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <cstring>
#include <string>
#include <vector>

#include "support/log.h"
#include "tests/testutil.h"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using Samples = std::unique_ptr<int16_t, FreeDeleter>;

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string le16(uint16_t v) { return std::string(reinterpret_cast<const char*>(&v), 2); }
std::string be32(uint32_t v) {
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                     static_cast<char>(v)};
  return std::string(b, 4);
}
std::string be16(uint16_t v) {
  const char b[2] = {static_cast<char>(v >> 8), static_cast<char>(v)};
  return std::string(b, 2);
}

std::string fmtChunk(uint16_t channels, uint32_t rate, uint16_t bits, uint32_t size = 16) {
  const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
  std::string body = le16(1) + le16(channels) + le32(rate) + le32(rate * align) + le16(align) + le16(bits);
  body.resize(size, '\0');
  return "fmt " + le32(size) + body;
}

std::string riff(const std::string& chunks) { return "RIFF" + le32(static_cast<uint32_t>(chunks.size() + 4)) + "WAVE" + chunks; }

// An AIFF file: COMM then SSND (offset and block size 0, then the words).
std::string aiff(uint16_t channels, uint16_t bits, const std::vector<int16_t>& words, const char* rate) {
  const uint32_t frames = static_cast<uint32_t>(words.size() / channels);
  std::string comm = "COMM" + be32(18) + be16(channels) + be32(frames) + be16(bits) + std::string(rate, 10);
  std::string data;
  for (int16_t w : words) data += be16(static_cast<uint16_t>(w));
  std::string ssnd = "SSND" + be32(static_cast<uint32_t>(data.size() + 8)) + be32(0) + be32(0) + data;
  std::string body = "AIFF" + comm + ssnd;
  return "FORM" + be32(static_cast<uint32_t>(body.size())) + body;
}

const char kRate44100[] = "\x40\x0E\xAC\x44\x00\x00\x00\x00\x00\x00";
const char kRate22050[] = "\x40\x0D\xAC\x44\x00\x00\x00\x00\x00\x00";

class WaveFiles : public ::testing::Test {
 protected:
  Samples load(const std::string& bytes, WaveFormat* format, int32_t* dataBytes, bool asAiff = false) {
    const std::string path = dir_.file(asAiff ? "in.aiff" : "in.wav");
    writeFile(path, bytes);
    return Samples(asAiff ? loadAiffFile(path.c_str(), format, 8, dataBytes)
                          : loadWaveFile(path.c_str(), format, 8, dataBytes));
  }
  TempDir dir_;
};

}  // namespace

TEST_F(WaveFiles, SaveThenLoadRoundTrip) {
  const std::vector<int16_t> words = {0, 1, -1, 32767, -32768, 1234};
  const std::string path = dir_.file("out.wav");
  ASSERT_EQ(saveWaveFile(path.c_str(), words.data(), 12, 16, 1, 44100), 0);
  const std::string bytes = readFile(path);
  ASSERT_EQ(bytes.size(), 56u);
  EXPECT_EQ(bytes.substr(0, 44), riff(fmtChunk(1, 44100, 16) + "data" + le32(12)).substr(0, 44).replace(4, 4, le32(48)));
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  Samples loaded(loadWaveFile(path.c_str(), &format, 4, &dataBytes));
  ASSERT_NE(loaded, nullptr);
  EXPECT_EQ(dataBytes, 12);
  EXPECT_EQ(format.channels, 1);
  EXPECT_EQ(format.sampleRate, 44100u);
  EXPECT_EQ(format.bitsPerSample, 16);
  EXPECT_EQ(0, memcmp(loaded.get(), words.data(), 12));

  ASSERT_EQ(saveWaveFile(path.c_str(), nullptr, 0, 16, 1, 44100), 0);
  EXPECT_EQ(readFile(path).size(), 44u);
  EXPECT_EQ(readFile(path).substr(4, 4), le32(36));
  EXPECT_EQ(saveWaveFile(dir_.file("no/dir.wav").c_str(), words.data(), 12, 16, 1, 44100), -1);
}

TEST_F(WaveFiles, ChunksAroundTheData) {
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  // A long fmt chunk, then LIST and fact chunks before the data.
  Samples a = load(riff(fmtChunk(2, 22050, 16, 18) + "LIST" + le32(4) + "abcd" + "fact" + le32(4) + le32(7) +
                        "data" + le32(8) + le16(1) + le16(2) + le16(3) + le16(4)),
                   &format, &dataBytes);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(format.channels, 2);
  EXPECT_EQ(format.sampleRate, 22050u);
  EXPECT_EQ(format.chunkSize, 18u);
  EXPECT_EQ(a.get()[3], 4);

  // Data before fmt: the format record stays as it was, but its rate is 0.
  WaveFormat untouched;
  memset(&untouched, 0, sizeof untouched);
  untouched.channels = 5;
  untouched.sampleRate = 8000;
  Samples b = load(riff("data" + le32(4) + le16(9) + le16(8) + fmtChunk(1, 44100, 16)), &untouched, &dataBytes);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(untouched.channels, 5);
  EXPECT_EQ(untouched.sampleRate, 0u);
}

TEST_F(WaveFiles, ShortDataChunksGiveWhatIsThereAndOddChunksArePadded) {
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  // A size of 0xFFFFFFFF (a streamed recording) or past the end (a cut
  // file): the whole frames that are there.
  for (uint32_t claimed : {0xFFFFFFFFu, 100u}) {
    Samples cut = load(riff(fmtChunk(2, 44100, 16) + "data" + le32(claimed) + le16(1) + le16(2) + le16(3) + le16(4) + "x"),
                       &format, &dataBytes);
    ASSERT_NE(cut, nullptr) << claimed;
    EXPECT_EQ(dataBytes, 8) << claimed;
    EXPECT_EQ(cut.get()[3], 4);
  }
  // A chunk of odd size is followed by its pad byte.
  Samples padded = load(riff(fmtChunk(1, 44100, 16) + "LIST" + le32(3) + "abc" + std::string(1, '\0') + "data" +
                             le32(4) + le16(7) + le16(8)),
                        &format, &dataBytes);
  ASSERT_NE(padded, nullptr);
  EXPECT_EQ(dataBytes, 4);
  EXPECT_EQ(padded.get()[0], 7);
  EXPECT_EQ(padded.get()[1], 8);
}

TEST_F(WaveFiles, HostileWavesFailCleanly) {
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  testing::internal::CaptureStderr();
  f_log = stderr;
  EXPECT_EQ(load("RIFX" + le32(4) + "WAVE", &format, &dataBytes), nullptr);
  EXPECT_EQ(load("RIFF" + le32(4) + "AVI ", &format, &dataBytes), nullptr);
  f_log = nullptr;
  const std::string messages = testing::internal::GetCapturedStderr();
  EXPECT_NE(messages.find("file format error.\n"), std::string::npos);
  EXPECT_NE(messages.find("file format error(2).\n"), std::string::npos);

  EXPECT_EQ(load("", &format, &dataBytes), nullptr);
  EXPECT_EQ(load("RIFF", &format, &dataBytes), nullptr);
  EXPECT_EQ(load(riff(fmtChunk(1, 44100, 16)), &format, &dataBytes), nullptr);             // no data chunk
  EXPECT_EQ(load(riff(fmtChunk(1, 44100, 16)).substr(0, 30), &format, &dataBytes), nullptr);  // cut in fmt
  EXPECT_EQ(load(riff("junk" + le32(0x7FFFFFF0) + "data" + le32(2) + "ab"), &format, &dataBytes), nullptr);
  EXPECT_EQ(load(riff("fmt " + le32(0xFFFFFF00) + fmtChunk(1, 44100, 16).substr(8)), &format, &dataBytes), nullptr);
  EXPECT_EQ(loadWaveFile(dir_.file("absent.wav").c_str(), &format, 0, &dataBytes), nullptr);
  // Data over 256 MiB (a sparse file: nothing is written) is refused
  // before anything is allocated.
  const std::string huge = dir_.file("huge.wav");
  const uint32_t size = kMaxSampleDataBytes + 2;
  ASSERT_TRUE(writeFile(huge, riff(fmtChunk(1, 44100, 16) + "data" + le32(size))));
  ASSERT_EQ(truncate(huge.c_str(), 44 + static_cast<off_t>(size)), 0);
  EXPECT_EQ(loadWaveFile(huge.c_str(), &format, 0, &dataBytes), nullptr);
}

// A fmt chunk of any format tag; WAVE_FORMAT_EXTENSIBLE (0xFFFE) carries
// `sub` in its GUID.
std::string fmtOf(uint16_t tag, uint16_t channels, uint16_t bits, uint16_t sub = 0) {
  const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
  std::string body = le16(tag) + le16(channels) + le32(44100) + le32(44100u * align) + le16(align) + le16(bits);
  if (tag == 0xFFFE) body += le16(22) + le16(bits) + le32(0) + le16(sub) + std::string("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
  return "fmt " + le32(static_cast<uint32_t>(body.size())) + body;
}

std::string floats(const std::vector<float>& values) {
  std::string bytes;
  for (float v : values) bytes += std::string(reinterpret_cast<const char*>(&v), 4);
  return bytes;
}

TEST_F(WaveFiles, OtherDepthsAndFloatsLoadAs16BitWords) {
  const float nan = std::nanf("");
  const double big = 3.0;
  std::string doubles;
  for (double v : {0.25, -big}) doubles += std::string(reinterpret_cast<const char*>(&v), 8);
  const struct {
    const char* what;
    std::string fmt, data;
    std::vector<int16_t> words;
  } cases[] = {
      {"8-bit, unsigned", fmtOf(1, 1, 8), std::string("\x80\x00\xff\x81", 4), {0, -32768, 32512, 256}},
      {"24-bit", fmtOf(1, 1, 24), std::string("\xff\xff\x7f\x00\x00\x80\x80\x00\x00", 9), {32767, -32768, 1}},
      {"32-bit", fmtOf(1, 2, 32), std::string("\x00\x80\x00\x00\x00\x00\x00\xc0", 8), {1, -16384}},
      {"float", fmtOf(3, 1, 32), floats({0.5f, -1.0f, 1.5f, nan}), {16384, -32768, 32767, 0}},
      {"double", fmtOf(3, 1, 64), doubles, {8192, -32768}},
      {"extensible float", fmtOf(0xFFFE, 1, 32, 3), floats({-0.25f}), {-8192}},
      {"extensible 24-bit", fmtOf(0xFFFE, 1, 24, 1), std::string("\x00\x01\x00", 3), {1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    WaveFormat format;
    memset(&format, 0, sizeof format);
    int32_t dataBytes = 0;
    Samples words = load(riff(c.fmt + "data" + le32(static_cast<uint32_t>(c.data.size())) + c.data), &format, &dataBytes);
    ASSERT_NE(words, nullptr);
    EXPECT_EQ(std::vector<int16_t>(words.get(), words.get() + dataBytes / 2), c.words);
    EXPECT_EQ(format.bitsPerSample, 16);
    EXPECT_EQ(format.blockAlign, format.channels * 2);
  }
  // What cannot be read gives nothing: ADPCM, a-law.
  WaveFormat format;
  int32_t dataBytes = 0;
  EXPECT_EQ(load(riff(fmtOf(2, 1, 4) + "data" + le32(2) + "ab"), &format, &dataBytes), nullptr);
  EXPECT_EQ(load(riff(fmtOf(6, 1, 8) + "data" + le32(2) + "ab"), &format, &dataBytes), nullptr);
  // 16-bit with no channels loads: callers check the format.
  EXPECT_NE(load(riff(fmtChunk(0, 44100, 16) + "data" + le32(2) + "ab"), &format, &dataBytes), nullptr);
  EXPECT_EQ(format.channels, 0);
}

TEST_F(WaveFiles, AiffKeepsItsAlignmentAndRates) {
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  Samples mono = load(aiff(1, 16, {100, -200, 300}, kRate44100), &format, &dataBytes, true);
  ASSERT_NE(mono, nullptr);
  EXPECT_EQ(format.sampleRate, 44100u);
  EXPECT_EQ(format.blockAlign, 2);
  EXPECT_EQ(format.byteRate, 88200u);
  EXPECT_EQ(dataBytes, 6);
  // The block-size field is read as the first word, and the last two
  // sample words are not read.
  EXPECT_EQ(mono.get()[0], 0);
  EXPECT_EQ(mono.get()[1], 0);
  EXPECT_EQ(mono.get()[2], 100);
  for (int k = 3; k < 3 + 8; ++k) EXPECT_EQ(mono.get()[k], 0) << k;  // zeroed padding

  // A stereo file: channels x frames words, inside the block.
  Samples stereo = load(aiff(2, 16, {1, 2, 3, 4, 5, 6}, kRate22050), &format, &dataBytes, true);
  ASSERT_NE(stereo, nullptr);
  EXPECT_EQ(format.sampleRate, 22050u);
  EXPECT_EQ(format.bitsPerSample, 32);  // sample size x channels, as the format has it
  EXPECT_EQ(stereo.get()[2], 1);
  EXPECT_EQ(stereo.get()[5], 4);

  uint8_t swapped[10];
  memcpy(swapped, kRate44100, 10);
  std::reverse(swapped, swapped + 10);
  EXPECT_EQ(getSampleRate(reinterpret_cast<const uint8_t*>(kRate44100), false), 44100u);
  EXPECT_EQ(getSampleRate(swapped, true), 44100u);
}

TEST_F(WaveFiles, HostileAiffsFailCleanly) {
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  testing::internal::CaptureStderr();
  f_log = stderr;
  EXPECT_EQ(load(aiff(1, 8, {1, 2}, kRate44100), &format, &dataBytes, true), nullptr);
  EXPECT_EQ(load("FROM" + be32(4) + "AIFF", &format, &dataBytes, true), nullptr);
  EXPECT_EQ(load("FORM" + be32(4) + "AIFC", &format, &dataBytes, true), nullptr);
  EXPECT_EQ(loadAiffFile(dir_.file("absent.aiff").c_str(), &format, 0, &dataBytes), nullptr);
  f_log = nullptr;
  const std::string messages = testing::internal::GetCapturedStderr();
  EXPECT_NE(messages.find("16ビットフォーマットではありません\n"), std::string::npos);
  EXPECT_NE(messages.find("最初のchunkはFROMでなければなりません"), std::string::npos);
  EXPECT_NE(messages.find("AIFFファイルではありません"), std::string::npos);
  EXPECT_NE(messages.find("ファイルが開けません\n"), std::string::npos);

  // A frame count far beyond the file, and a truncated COMM.
  std::string huge = aiff(2, 16, {1, 2}, kRate44100);
  huge.replace(12 + 8 + 2, 4, be32(0x7FFFFFFF));
  EXPECT_EQ(load(huge, &format, &dataBytes, true), nullptr);
  EXPECT_EQ(load(aiff(1, 16, {1, 2}, kRate44100).substr(0, 25), &format, &dataBytes, true), nullptr);
  std::string zeroChannels = aiff(1, 16, {1, 2}, kRate44100);
  zeroChannels.replace(12 + 8, 2, be16(0));
  EXPECT_EQ(load(zeroChannels, &format, &dataBytes, true), nullptr);
}

TEST(SampleConversion, ShortToDoubleBoundsAndChannels) {
  const int16_t mono[4] = {10, 20, 30, 40};
  double out[4] = {-1, -1, -1, -1};
  short2double(out, mono, -2, 4, 1);
  EXPECT_EQ(out[0], 0.0);
  EXPECT_EQ(out[1], 0.0);
  EXPECT_EQ(out[2], 10.0);
  EXPECT_EQ(out[3], 20.0);
  const int16_t stereo[6] = {1, -1, 2, -2, 3, -3};
  short2double(out, stereo, 1, 2, 2);
  EXPECT_EQ(out[0], 2.0);
  EXPECT_EQ(out[1], 3.0);
  double untouched[2] = {7.0, 7.0};
  short2double(untouched, stereo, 0, 2, 3);
  EXPECT_EQ(untouched[0], 7.0);
}

// A render's header as a reader of both forms takes it: the canonical one
// up to the largest data a RIFF size holds, RF64 past it (the files are
// sparse, so 5 GB cost no disk), each with its sizes and the first
// samples where they belong; and a file of either form may be written
// over, anything else not.
TEST(WaveHeader, RiffUpTo4GiBThenRf64AsLibsndfileReadsThem) {
  TempDir folder;
  const std::string path = folder.file("long.wav");
  const int16_t first[4] = {1000, -2000, 3000, -4000};
  const int64_t largestRiff = (int64_t{UINT32_MAX} - 36) & ~int64_t{1};
  struct Case {
    int64_t dataBytes;
    size_t headerBytes;
    int format;
  };
  for (const Case& c : {Case{8, 44, SF_FORMAT_WAV}, Case{largestRiff, 44, SF_FORMAT_WAV},
                        Case{largestRiff + 2, 80, SF_FORMAT_RF64}, Case{5000000000, 80, SF_FORMAT_RF64}}) {
    SCOPED_TRACE(c.dataBytes);
    const std::string header = waveHeader(c.dataBytes, 44100);
    ASSERT_EQ(header.size(), c.headerBytes);
    writeFile(path, header + std::string(reinterpret_cast<const char*>(first), sizeof first));
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(c.headerBytes + c.dataBytes)), 0);
    EXPECT_EQ(notAWaveFile(path), "");
    SF_INFO info = {};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(info.format, c.format | SF_FORMAT_PCM_16);
    EXPECT_EQ(info.channels, 1);
    EXPECT_EQ(info.samplerate, 44100);
    EXPECT_EQ(info.frames, c.dataBytes / 2);
    int16_t read[4] = {};
    EXPECT_EQ(sf_read_short(file, read, 4), 4);
    sf_close(file);
    EXPECT_TRUE(std::equal(read, read + 4, first));
  }
  writeFile(path, "RF64....WAVX");
  EXPECT_NE(notAWaveFile(path), "");
}
