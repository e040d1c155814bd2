// Voice samples in and rendered audio out: RIFF/WAVE and AIFF files read
// as 16-bit words, and 16-bit WAVE files written.
//
// Loaders return a malloc block the caller frees: the data as 16-bit words
// in host order, followed by extra room (padding) so that readers running
// past the end stay inside the block. Null on any failure. Nothing is
// kept between calls. Hostile files (truncated, oversized chunks, huge
// counts) fail cleanly: a data chunk is never trusted beyond the file.
#pragma once

#include <cstdint>
#include <string>

// The body of a WAVE "fmt " chunk, preceded by its id and size.
struct WaveFormat {
  uint32_t chunkId;     // "fmt "
  uint32_t chunkSize;   // 16 for AIFF
  uint16_t formatTag;   // 1 = PCM
  int16_t channels;
  uint32_t sampleRate;  // frames per second
  uint32_t byteRate;    // bytes per second
  uint16_t blockAlign;  // bytes per frame
  uint16_t bitsPerSample;
};

// No voice sample is longer than this (50 minutes of 16-bit mono): a data
// chunk over it is refused, so that a huge file cannot exhaust memory.
constexpr uint32_t kMaxSampleDataBytes = 256u << 20;

// padding: extra frames (block align each) after the data, not cleared.
// dataBytes: the data's size in bytes as loaded. PCM of 8, 24 or 32 bits
// and 32- or 64-bit floating point (plain or WAVE_FORMAT_EXTENSIBLE) are
// converted to 16-bit words on loading (rounded, held within range), and
// *format then says 16-bit PCM; other formats give null.
int16_t* loadWaveFile(const char* path, WaveFormat* format, int32_t padding, int32_t* dataBytes);
// padding: extra 16-bit words after the samples, zeroed. A stereo file
// keeps both channels interleaved. Only 16-bit AIFF loads.
int16_t* loadAiffFile(const char* path, WaveFormat* format, int32_t padding, int32_t* dataBytes);
// A canonical 44-byte-header WAVE file. 0 on success, -1 when the file
// cannot be created (or written).
int32_t saveWaveFile(const char* path, const int16_t* samples, int32_t dataBytes, int32_t bitsPerSample,
                     int32_t channels, int32_t sampleRate);

// The header of a 16-bit mono WAVE file of `dataBytes` bytes of samples at
// `sampleRate`: the canonical 44 bytes, or, past what a RIFF size holds
// (4 GiB), the 80 bytes of an RF64 file (its ds64 chunk keeps the sizes
// in 64 bits; the 32-bit fields hold 0xFFFFFFFF).
std::string waveHeader(int64_t dataBytes, int32_t sampleRate);

// count values from frame `start` (first channel only; frames before 0
// give 0.0). Channel counts other than 1 and 2 write nothing.
// Why a WAV file must not be written at `path`, or "" when it may: a
// regular file there (or where a link there leads) that is not a RIFF WAVE
// file is someone else's. Nothing there, a WAV file, a device or a FIFO are
// fine.
std::string notAWaveFile(const std::string& path);

void short2double(double* dst, const int16_t* src, int32_t start, int32_t count, int32_t channels);
// count unsigned 8-bit values from the start of src, as value - 128; the
// start argument is not used (callers pass an offset pointer).
void byte2double(double* dst, const uint8_t* src, int32_t start, int32_t count);
void byte2doubleR(double* dst, const uint8_t* src, int32_t start, int32_t count);

// The whole hertz of an 80-bit IEEE extended number as an AIFF COMM chunk
// stores it; swapped: the 10 bytes are in reversed (little-endian) order.
uint32_t getSampleRate(const uint8_t* extended, bool swapped);
