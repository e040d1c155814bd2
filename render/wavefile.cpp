#include "render/wavefile.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/byteorder.h"
#include "support/log.h"
#include "support/regular_file.h"

namespace {

uint32_t fourcc(const char* id) {
  uint32_t word;
  memcpy(&word, id, 4);
  return word;
}

const uint32_t kRiff = fourcc("RIFF");
const uint32_t kWave = fourcc("WAVE");
const uint32_t kFmt = fourcc("fmt ");
const uint32_t kData = fourcc("data");
const uint32_t kForm = fourcc("FORM");
const uint32_t kAiff = fourcc("AIFF");
const uint32_t kComm = fourcc("COMM");
const uint32_t kSsnd = fourcc("SSND");

// An open file and what is left of it, so that no size read from it is
// trusted beyond its end.
class Reader {
 public:
  explicit Reader(FILE* file) : file_(file) {
    struct stat info;
    size_ = fstat(fileno(file), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
  }
  ~Reader() { fclose(file_); }
  FILE* file() const { return file_; }
  long long remaining() const {
    const long position = ftell(file_);
    return position < 0 ? 0 : size_ - position;
  }
  bool read(void* data, size_t size, bool swap) { return freade(data, size, 1, file_, swap) == 1; }
  bool readId(uint32_t* id) { return fread(id, 4, 1, file_) == 1; }
  // Skips n bytes; false when that passes the end of the file.
  bool skip(long long n) {
    if (n < 0 || n > remaining()) {
      fseek(file_, 0, SEEK_END);
      return false;
    }
    return fseek(file_, static_cast<long>(n), SEEK_CUR) == 0;
  }

 private:
  FILE* file_;
  long long size_;
};

// Samples of 8, 24 or 32 bits, or floating point, as 16-bit words (read
// through a buffer of a megabyte at most), rounded and held within range;
// the format then says 16-bit PCM.
int16_t* convertTo16(Reader& in, WaveFormat* format, uint32_t size, int bits, bool floating, int32_t padding,
                     int32_t* dataBytes) {
  const size_t width = static_cast<size_t>(bits) / 8, count = size / width;
  const size_t channels = static_cast<size_t>(format->channels);
  const size_t extra = channels * static_cast<size_t>(padding > 0 ? padding : 0);
  if (count > static_cast<size_t>(INT32_MAX / 2)) return nullptr;
  int16_t* samples = static_cast<int16_t*>(malloc((count + extra) * 2 + 2));
  if (samples == nullptr) return nullptr;
  std::vector<uint8_t> chunk(std::min<size_t>(count, 1 << 18) * width);
  for (size_t done = 0; done < count;) {
    const size_t n = std::min(count - done, chunk.size() / width);
    if (fread(chunk.data(), width, n, in.file()) != n) {
      free(samples);
      return nullptr;
    }
    for (size_t k = 0; k < n; ++k) {
      const uint8_t* b = &chunk[k * width];
      double value;  // in 16-bit units
      if (floating) {
        if (bits == 32) {
          uint32_t word = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                          static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
          float f;
          memcpy(&f, &word, 4);
          value = static_cast<double>(f) * 32768.0;
        } else {
          uint64_t word = 0;
          for (int i = 7; i >= 0; --i) word = word << 8 | b[i];
          double f;
          memcpy(&f, &word, 8);
          value = f * 32768.0;
        }
      } else if (bits == 8) {
        value = (static_cast<int>(b[0]) - 128) * 256.0;  // 8-bit samples are unsigned
      } else if (bits == 24) {
        const int32_t word = static_cast<int32_t>(static_cast<uint32_t>(b[0]) << 8 | static_cast<uint32_t>(b[1]) << 16 |
                                                  static_cast<uint32_t>(b[2]) << 24);
        value = word / 65536.0;
      } else {
        const int32_t word = static_cast<int32_t>(static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                                                  static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24);
        value = word / 65536.0;
      }
      if (!(value == value)) value = 0.0;  // NaN
      samples[done + k] = static_cast<int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
    }
    done += n;
  }
  format->formatTag = 1;
  format->bitsPerSample = 16;
  format->blockAlign = static_cast<uint16_t>(channels * 2);
  format->byteRate = format->sampleRate * format->blockAlign;
  if (dataBytes != nullptr) *dataBytes = static_cast<int32_t>(count * 2);
  return samples;
}

}  // namespace

int16_t* loadWaveFile(const char* path, WaveFormat* format, int32_t padding, int32_t* dataBytes) {
  if (path == nullptr || format == nullptr) return nullptr;
  FILE* file = openRegularFile(path, "rb");
  if (file == nullptr) return nullptr;
  Reader in(file);
  uint32_t riff = 0, riffSize = 0, wave = 0;
  if (!in.readId(&riff) || riff != kRiff) {
    log_printf(1, "file format error.\n");
    return nullptr;
  }
  if (!in.read(&riffSize, 4, false) || !in.readId(&wave) || wave != kWave) {
    log_printf(1, "file format error(2).\n");
    return nullptr;
  }
  format->sampleRate = 0;
  uint16_t subFormat = 1;
  for (;;) {
    uint32_t id = 0;
    if (!in.readId(&id)) return nullptr;  // the end came before any data chunk
    if (id == kFmt) {
      uint32_t size = 0;
      if (!in.read(&size, 4, false) || !in.read(&format->formatTag, 2, false) ||
          !in.read(&format->channels, 2, false) || !in.read(&format->sampleRate, 4, false) ||
          !in.read(&format->byteRate, 4, false) || !in.read(&format->blockAlign, 2, false) ||
          !in.read(&format->bitsPerSample, 2, false)) {
        return nullptr;
      }
      format->chunkId = id;
      format->chunkSize = size;
      long long read = 16;
      // WAVE_FORMAT_EXTENSIBLE names its real format in the first two bytes
      // of its sub-format GUID, 24 bytes into the extension.
      subFormat = format->formatTag;
      if (format->formatTag == 0xFFFE && size >= 40) {
        uint8_t extension[24];
        if (!in.read(extension, sizeof extension, false)) return nullptr;
        subFormat = static_cast<uint16_t>(extension[8] | (extension[9] << 8));
        read += sizeof extension;
      }
      // A chunk of odd size is followed by a pad byte.
      if (size + (size & 1) > read && !in.skip(static_cast<long long>(size) + (size & 1) - read)) return nullptr;
    } else if (id == kData) {
      uint32_t size = 0;
      if (!in.read(&size, 4, false)) return nullptr;
      // A data chunk that claims more than the file holds (a truncated file,
      // or 0xFFFFFFFF from a recorder that streamed it) gives what is there,
      // in whole frames.
      if (static_cast<long long>(size) > in.remaining()) {
        const uint32_t frame = std::max<uint32_t>(format->blockAlign, 2);
        size = static_cast<uint32_t>(std::min<long long>(in.remaining(), UINT32_MAX)) / frame * frame;
      }
      if (size > kMaxSampleDataBytes) {
        log_printf(1, "the sample's data is over 256 MiB\n");
        return nullptr;
      }
      const int bits = format->bitsPerSample;
      const bool pcm = (subFormat == 1 || subFormat == 0xFFFE) && (bits == 8 || bits == 24 || bits == 32);
      const bool floating = subFormat == 3 && (bits == 32 || bits == 64);
      if ((pcm || floating) && format->channels >= 1) {
        return convertTo16(in, format, size, bits, floating, padding, dataBytes);
      }
      if (subFormat != 1 && subFormat != 0xFFFE) {
        log_printf(1, "WAV format %d with %d bits is not read\n", subFormat, bits);
        return nullptr;
      }
      const size_t bytes = static_cast<size_t>(format->blockAlign) * static_cast<size_t>(padding > 0 ? padding : 0) +
                           size;
      int16_t* samples = static_cast<int16_t*>(malloc(bytes > 0 ? bytes : 1));
      if (samples == nullptr) return nullptr;
      if (fread(samples, 2, size / 2, in.file()) != size / 2) {
        free(samples);
        return nullptr;
      }
      if (dataBytes != nullptr) *dataBytes = static_cast<int32_t>(size);
      return samples;
    } else {
      uint32_t size = 0;
      if (!in.read(&size, 4, false)) return nullptr;
      if (!in.skip(static_cast<long long>(size) + (size & 1))) return nullptr;
    }
  }
}

uint32_t getSampleRate(const uint8_t* extended, bool swapped) {
  uint8_t bytes[10];
  memcpy(bytes, extended, 10);
  if (swapped) brevert(bytes, 10);  // back into file order
  const uint32_t exponent = ((static_cast<uint32_t>(bytes[0]) << 8) | bytes[1]) & 0x7FFF;
  const uint32_t mantissa = (static_cast<uint32_t>(bytes[2]) << 24) | (static_cast<uint32_t>(bytes[3]) << 16) |
                            (static_cast<uint32_t>(bytes[4]) << 8) | bytes[5];
  return mantissa >> ((16414u - exponent) & 31u);
}

int16_t* loadAiffFile(const char* path, WaveFormat* format, int32_t padding, int32_t* dataBytes) {
  if (path == nullptr || format == nullptr) return nullptr;
  FILE* file = openRegularFile(path, "rb");
  if (file == nullptr) {
    log_printf(1, "ファイルが開けません\n");
    return nullptr;
  }
  Reader in(file);
  int16_t channels = 1, sampleSize = 16;
  uint32_t frames = 0, sampleRate = 44100;
  uint32_t id = 0, size = 0;
  if (!in.readId(&id) || id != kForm) {
    log_printf(1, "最初のchunkはFROMでなければなりません %x \n", id);
    return nullptr;
  }
  uint32_t type = 0;
  if (!in.read(&size, 4, true) || !in.readId(&type) || type != kAiff) {
    log_printf(1, "AIFFファイルではありません %x \n", type);
    return nullptr;
  }
  if (padding < 0) padding = 0;
  int16_t* samples = nullptr;
  uint32_t soundSize = 0;
  while (samples == nullptr && in.readId(&id) && in.read(&size, 4, true)) {
    if (id == kComm) {
      uint8_t extended[10];
      if (size < 18 || !in.read(&channels, 2, true) || !in.read(&frames, 4, true) ||
          !in.read(&sampleSize, 2, true) || fread(extended, 10, 1, in.file()) != 1 || !in.skip(size - 18)) {
        return nullptr;
      }
      sampleRate = getSampleRate(extended, false);
    } else if (id == kSsnd) {
      uint32_t offset = 0;
      if (!in.read(&offset, 4, true)) return nullptr;
      // The block-size field is read as the first frame's data, and the last
      // four bytes of sound data stay unread: analysis tables made from AIFF
      // samples depend on this alignment.
      const long long words = static_cast<long long>(channels < 1 ? 1 : channels) * frames;
      if (channels < 1 || words * 2 > in.remaining() || words * 2 > kMaxSampleDataBytes) return nullptr;
      const size_t total = static_cast<size_t>(words + padding);
      samples = static_cast<int16_t*>(calloc(total > 0 ? total : 1, sizeof(int16_t)));
      if (samples == nullptr) return nullptr;
      const long read = freade(samples, 2, static_cast<size_t>(words), in.file(), true);
      (void)read;  // the last word or two meet the end of the chunk: they stay 0
      // The data size reported never exceeds the words in the block.
      soundSize = static_cast<uint32_t>(std::min<long long>(size, words * 2 + 8));
    } else if (!in.skip(size)) {
      break;
    }
  }
  if (sampleSize != 16) {
    log_printf(1, "16ビットフォーマットではありません\n");
    free(samples);
    return nullptr;
  }
  if (samples == nullptr) return nullptr;
  if (dataBytes != nullptr) *dataBytes = soundSize >= 8 ? static_cast<int32_t>(soundSize - 8) : 0;
  format->chunkId = kFmt;
  format->chunkSize = 16;
  format->formatTag = 1;
  format->channels = channels;
  format->sampleRate = sampleRate;
  format->blockAlign = 2;
  format->byteRate = sampleRate * 2;
  format->bitsPerSample = static_cast<uint16_t>(sampleSize * channels);
  return samples;
}

int32_t saveWaveFile(const char* path, const int16_t* samples, int32_t dataBytes, int32_t bitsPerSample,
                     int32_t channels, int32_t sampleRate) {
  FILE* file = fopen(path, "wb");
  if (file == nullptr) return -1;
  const uint16_t blockAlign = static_cast<uint16_t>(channels * bitsPerSample / 8);
  const uint32_t riffSize = static_cast<uint32_t>(dataBytes) + 36;
  const uint32_t fmtSize = 16;
  const uint16_t pcm = 1;
  const uint16_t channelCount = static_cast<uint16_t>(channels);
  const uint32_t rate = static_cast<uint32_t>(sampleRate);
  const uint32_t byteRate = rate * blockAlign;
  const uint16_t bits = static_cast<uint16_t>(bitsPerSample);
  const uint32_t size = static_cast<uint32_t>(dataBytes);
  fwrite("RIFF", 4, 1, file);
  fwritee(&riffSize, 4, 1, file, false);
  fwrite("WAVEfmt ", 8, 1, file);
  fwritee(&fmtSize, 4, 1, file, false);
  fwritee(&pcm, 2, 1, file, false);
  fwritee(&channelCount, 2, 1, file, false);
  fwritee(&rate, 4, 1, file, false);
  fwritee(&byteRate, 4, 1, file, false);
  fwritee(&blockAlign, 2, 1, file, false);
  fwritee(&bits, 2, 1, file, false);
  fwrite("data", 4, 1, file);
  fwritee(&size, 4, 1, file, false);
  if (dataBytes > 0 && samples != nullptr) fwrite(samples, 2, static_cast<size_t>(dataBytes) / 2, file);
  const bool failed = ferror(file) != 0;
  return (fclose(file) == 0 && !failed) ? 0 : -1;
}

std::string waveHeader(int64_t dataBytes, int32_t sampleRate) {
  std::string head;
  auto put = [&head](uint64_t value, int bytes) {
    for (int k = 0; k < bytes; ++k) head.push_back(static_cast<char>((value >> (8 * k)) & 0xff));
  };
  const uint64_t data = static_cast<uint64_t>(std::max<int64_t>(dataBytes, 0));
  const bool large = data > UINT32_MAX - 36u;
  head += large ? "RF64" : "RIFF";
  put(large ? UINT32_MAX : data + 36u, 4);
  head += "WAVE";
  if (large) {
    head += "ds64";
    put(28, 4);
    put(data + 72u, 8);  // the RIFF size: the file less its first 8 bytes
    put(data, 8);
    put(data / 2, 8);  // frames
    put(0, 4);         // no table of other chunks' sizes
  }
  head += "fmt ";
  put(16, 4);
  put(1, 2);  // PCM
  put(1, 2);  // mono
  put(static_cast<uint32_t>(sampleRate), 4);
  put(static_cast<uint32_t>(sampleRate) * 2u, 4);
  put(2, 2);
  put(16, 2);
  head += "data";
  put(large ? UINT32_MAX : data, 4);
  return head;
}

void short2double(double* dst, const int16_t* src, int32_t start, int32_t count, int32_t channels) {
  if (channels != 1 && channels != 2) return;
  for (int32_t i = 0; i < count; ++i) {
    const long long frame = static_cast<long long>(start) + i;
    dst[i] = frame < 0 ? 0.0 : static_cast<double>(src[frame * channels]);
  }
}

void byte2double(double* dst, const uint8_t* src, int32_t, int32_t count) {
  for (int32_t i = 0; i < count; ++i) dst[i] = static_cast<double>(src[i]) - 128.0;
}

void byte2doubleR(double* dst, const uint8_t* src, int32_t start, int32_t count) {
  byte2double(dst, src, start, count);
}

std::string notAWaveFile(const std::string& path) {
  struct stat info;
  if (path == "-" || stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::string();
  char head[12] = {0};
  FILE* file = openRegularFile(path.c_str(), "rb");
  const size_t got = file != nullptr ? fread(head, 1, sizeof head, file) : 0;
  if (file != nullptr) fclose(file);
  const bool riff = memcmp(head, "RIFF", 4) == 0 || memcmp(head, "RF64", 4) == 0;
  if (got == sizeof head && riff && memcmp(head + 8, "WAVE", 4) == 0) return std::string();
  return "'" + path + "' exists and is not a WAV file";
}
