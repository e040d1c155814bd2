// Frequency tables: per 256-sample frame, the fundamental frequency (Hz, 0
// when unvoiced) and the windowed RMS amplitude, plus the sample's average
// frequency; stored beside the sample as ".frq" (binary, little-endian) and
// optionally ".frt" (text). ka.wav has ka_wav.frq; other extensions keep
// their dot (x.WAV.frq).
//
// Arrays are malloc blocks of count + 1 values, the last stored value
// repeated, owned by the caller. Readers answer 0 for anything unusable:
// missing, stale, wrong magic or step, counts beyond the file.
#pragma once

#include <cstdint>
#include <string>

// The table file of a sample: "frq", "frt" or "f0".
std::string frequencyTablePath(const char* samplePath, const char* extension);

// The sample's table: read when trusted (".frq", else ".frt" converted to
// ".frq"), else computed and written. Flags "G" force computing, "T" also
// writes the text dump. `analysisSize` is not used. Null when the sample
// has no voiced frame.
double* initFrequenciesList(double** amplitudes, double* average, const char* samplePath, const char* flags,
                            const int16_t* samples, int32_t frames, int32_t sampleRate, int32_t channels,
                            int32_t analysisSize, int32_t step);

// A ".frq" is trusted unless the sample is newer and the table is writable
// by its owner (a write-protected table is always trusted). Returns the
// frame count stored.
int32_t readFrequenciesList(const char* samplePath, double** frequencies, double** amplitudes, double* average,
                            int32_t step);
// 1 on success, 0 when the file cannot be created or written.
int32_t writeFrequenciesList(const char* samplePath, const double* frequencies, const double* amplitudes,
                             int32_t count, double average, int32_t step);
int32_t readFrequenciesText(const char* samplePath, double** frequencies, double** amplitudes, double* average,
                            int32_t step);
int32_t writeFrequenciesText(const char* samplePath, const double* frequencies, const double* amplitudes,
                             int32_t count, double average, int32_t step);
// A ".f0" value table; a count past the file's end is cut to what it holds.
int32_t readSpecTable(const char* samplePath, double** values);
// The table as octaves relative to the average (frames at or below 55 Hz
// become minus infinity), count + 1 values; null when unusable.
double* readFreq(const char* samplePath, int32_t* count);
