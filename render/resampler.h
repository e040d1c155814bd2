// The resampler: one voice sample becomes one note's audio.
//
// The usable stretch of the sample (offset, consonant and blank of the
// voice entry) is stretched in time to the note's length and moved onto
// its pitch curve by a pitch-period-synchronous two-tap crossfade of
// band-limited (windowed-sinc) reads; the aperiodic part (the difference
// of the signal half a period before and after the read point) is
// resynthesised from a 1024-point short-time spectrum and mixed back; then
// flag-driven filters and normalisation. The pitch of the sample comes
// from its frequency table, made on first use.
//
// Thread safe once init_render has run: each call keeps its state to
// itself (the environment curves are read on every call).
#pragma once

#include <cstdint>

#include "engine/notedata.h"

extern const int32_t SampleRateOut;  // 44100

// The FFT tables (1024 points) and the tone table for `sampleRate`.
void init_render(int32_t sampleRate);

enum class ResampError { kNone, kLoad, kFormat, kNoFrequencies, kNotEnoughSamples };
// The message of an error, as the log has it ("" for kNone).
const char* resampErrorText(ResampError error);

// Renders `note` from the sample at `path`. note->VoiceFile points at the
// VoiceData entry (its filename field) whose offset, consonant and blank
// apply; null means all three are 0. lengthMs <= 0: the whole usable
// stretch. Returns a malloc block of *outCount doubles (16-bit units, not
// clipped) owned by the caller, or null (error, when given, says why).
double* resamp(const char* path, const NoteData* note, float lengthMs, int32_t* outCount, float tempo,
               ResampError* error = nullptr);

// resamp, then a 16-bit mono WAVE file at SampleRateOut. 0 on success, -1
// when resamp failed (or the file could not be written), 1 when memory ran
// out.
int32_t render(const char* path, const char* outPath, const NoteData* note, float lengthMs, float tempo);

// Band-limited read of 16-bit samples at fractional frame x: a sinc of
// width r samples under a cos(u / 4) taper, normalised by its weights;
// stride is the words per frame. The caller guarantees samples up to
// x + 2r; negative indices read as 0.
double target_value(double x, const int16_t* samples, double r, int32_t stride);

// Cubic-spline evaluation at x over values a[] whose index 0 is `base`;
// the coefficient arrays b, c, d are indexed 1408 entries further on.
double current_value(double x, int32_t base, const double* a, const double* b, const double* c, const double* d);

// The compact curve encoding: two base64 characters per 12-bit signed
// value; "#N#" repeats the last value N times.
int32_t get64(char c);
// Decodes into out (at most capacity values; the rest are dropped).
// Returns the number stored.
int32_t decpit(const char* text, int32_t* out, int32_t capacity);
// Decodes into a realloc'd array; *count receives its length.
int16_t* decpit2(const char* text, int32_t* count);
