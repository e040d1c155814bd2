// Pitch analysis of voice samples, the musical tone table and the FFT.
//
// The analyser is time-domain: a two-sided, Hann-weighted average
// magnitude difference over candidate periods, searched range by range,
// confirmed by the strength of the waveform at that period, repaired
// against the sample's average, and refined to a fraction of a sample by
// cubic-spline interpolation. Frame i is centred near sample 256 i.
//
// Samples are 16-bit, interleaved by channel; only the first channel is
// analysed; samples before 0 and past the end read as 0.
#pragma once

#include <cstdint>

constexpr int kAnalysisStep = 256;    // samples per frame
constexpr int kAnalysisWindow = 512;  // Hann window of the difference function

// --- Tone table (process-wide; set it up before threads start) -------------
// The frequency of A4, 440 Hz by default.
void setToneBase(double frequency);
// 901 tones from base / 8 (A1) upward in tenths of a semitone, and for each
// a window length min(largest, 2048 sqrt(55 / f)).
void initToneTable(int32_t sampleRate, int32_t largest);
// The nearest tone's index, 0..900 (0 too for frequencies past the table).
int32_t getToneNumber(double frequency);
// The tone's name, as "A4" or "A4 +0.2" (tenths of a semitone); out needs
// 16 bytes. Returns out.
char* getToneName(double frequency, char* out);
double getToneFrequency(int32_t index);
// The reference frequency of A4 set by setToneBase.
double getToneBase();
int32_t getToneLength(int32_t index);
// 55 x 2^((n - 33) / 12): note 69 is 440 Hz.
double num2freq(int32_t noteNumber);
// C4 is 60; 0 for an invalid name.
int32_t name2num(const char* name);
// A note name plus tenths of a semitone, in Hz.
double name2freq(const char* name, int32_t tenths);

// --- Transform ------------------------------------------------------------------
// cos and sin of 2 pi k / n for k = 0..n-1, exact at the quarter points.
void calc_cossin(int32_t n, double* cosTable, double* sinTable);
// In-place radix-2 complex transform, n a power of two, with tables from
// calc_cossin(n). fft1 computes X[k] = sum x[m] e^(-2 pi i k m / n) and is
// not scaled; ifft1 is its inverse, scaled by 1 / n.
void fft1(double* re, double* im, int32_t n, const double* cosTable, const double* sinTable);
void ifft1(double* re, double* im, int32_t n, const double* cosTable, const double* sinTable);

// Transforms of real signals at half the cost, with the same n-point
// tables. fftRealForward: x[0..n) to the bins 0..n/2 of fft1(x) in
// re/im[0..n/2]. fftRealInverse: from bins 0..n/2 of a spectrum whose
// other half mirrors them (conjugated), x[0..n) = ifft1 of it (real,
// scaled by 1/n); re and im are used as scratch.
void fftRealForward(const double* x, int32_t n, double* re, double* im, const double* cosTable, const double* sinTable);
void fftRealInverse(double* re, double* im, int32_t n, double* x, const double* cosTable, const double* sinTable);

// --- Analysis ---------------------------------------------------------------------
// The Hann window of the difference function: w[0] = 0, w[k] = 0.5 - 0.5
// cos(2 pi k / 512).
const double* analysisWindow();

// The difference function at `position` for periods shortest..longest:
// returns the period of the smallest value (0 when none is below 32768),
// with that value and the mean square of all values. The caller
// guarantees samples from position - 128 - longest to position + 383 +
// longest (indices below 0 read as 0).
int32_t bcf(double* meanSquare, double* minimum, int32_t shortest, int32_t longest, const int16_t* samples,
            int32_t channels, int32_t position, const double* window);

// The frequency table of a sample of `frames` frames: n + 2 frequencies
// (frames 0..n analysed, the last repeated) in a malloc block, with the
// amplitudes (same length, malloc) and the weighted average frequency.
// Null when no frame is voiced. A flags text containing "I" skips the
// octave check of the repair pass.
double* bcfGetFrequencyList(double** amplitudes, double* average, int32_t frames, int32_t n, int32_t sampleRate,
                            int32_t channels, const int16_t* samples, const char* flags);
// Refines frames 0..n whose frequency exceeds 55 Hz in place (the sample
// holds `frames` frames). Returns frequencies.
double* collectFrequency(double* frequencies, const int16_t* samples, int32_t frames, int32_t channels, int32_t n,
                         int32_t sampleRate);

// A natural cubic spline through values[0..count) at unit spacing:
// S(k + t) = values[k] + b[k] t + c[k] t^2 + d[k] t^3. `flag` is not used.
void calcSplineParam(const double* values, int32_t count, double* b, double* c, double* d, int32_t flag);
void calcSplineFloat(const float* values, int32_t count, float* b, float* c, float* d, int32_t flag);

// Loads a sample (".wav", ".aif", ".aiff") and makes its frequency table
// file; options bit 0 regenerates it even when a trusted one exists, bit 1
// also makes its spectrum file (".spef"). 1 when the sample was loaded.
int32_t generateAnlyzeFiles(const char* samplePath, int32_t options);
