// Spectral envelopes of voice samples, and the ".spef" spectrum files
// that keep them beside the sample (like its ".frq" frequency table).
//
// The envelope of a frame is a pitch-adaptive cepstral estimate: a Hann
// window of three pitch periods (256 to 1024 samples), the log amplitude
// spectrum of 1024 points, its real cepstrum liftered below 0.6 of the
// period (which removes the ripple of the harmonics and keeps the
// resonances), back to a smooth log spectrum. Why this one: the vowel's
// formants sit on the harmonics; a fixed-window LPC or a plain smoothed
// spectrum mixes the harmonic ripple into the envelope as the pitch
// changes, while the cepstral lifter tied to the period separates the two
// at any pitch, costs three real transforms, and needs no iteration.
//
// A ".spef" file, all numbers little-endian:
//   offset  0  "TONASPEF"            magic, 8 bytes
//           8  uint32 version         1
//          12  uint32 sample rate     Hz of the sample
//          16  uint32 frame step      256 samples (the ".frq" grid)
//          20  uint32 bin count       257: 0 to rate/2 in steps of rate/512
//          24  uint32 frame count     frames/256 + 1
//          28  float32[frames][bins]  natural log of the envelope's amplitude
// A file is read only when its header says exactly this, its size is
// 28 + 4 x frames x bins, and it is not older than the sample; anything
// else is computed again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr int32_t kSpectrumFrameStep = 256;
constexpr int32_t kSpectrumBins = 257;
constexpr int32_t kSpectrumFftSize = 1024;

struct SpectrumTable {
  int32_t rate = 0;
  int32_t frames = 0;
  std::vector<float> values;  // frames x kSpectrumBins

  // The log amplitude at `hz` in frame position `frame` (fractional;
  // frames and bins interpolated linearly, held at the ends).
  double at(double frame, double hz) const;
  // The kSpectrumBins values of frame position `frame`, interpolated.
  void row(double frame, double* out) const;
};

// Estimates log envelopes. Allocates its buffers once; not thread safe
// (one per thread).
class EnvelopeEstimator {
 public:
  EnvelopeEstimator();
  // frame: kSpectrumFftSize samples whose middle (index 512) is the time
  // the envelope is for; period: the pitch period there in samples
  // (unvoiced frames pass the average period). Writes 513 log amplitudes
  // (bins 0..512 of a 1024-point spectrum) to logEnvelope.
  void estimate(const double* frame, double period, double* logEnvelope);

 private:
  std::vector<double> cosTable_, sinTable_, window_, re_, im_, x_;
};

// Computes the table of a sample: its first channel (stride words per
// frame), with the sample's frequency per 256-sample frame (f0, count
// values; 0 or NaN where unvoiced) and its average frequency.
bool computeSpectrum(const int16_t* words, int32_t frames, int32_t stride, int32_t rate, const double* f0,
                     int32_t f0Count, double average, SpectrumTable* out);

std::string spectrumFilePath(const char* samplePath);
// False (out untouched) unless the file is sound and its rate and frame
// count are the ones given.
bool readSpectrumFile(const char* path, int32_t rate, int32_t frames, SpectrumTable* out);
bool readSpectrumFile(const std::string& bytes, int32_t rate, int32_t frames, SpectrumTable* out);
// 1 when written, 0 when the file cannot be created or written.
int32_t writeSpectrumFile(const char* path, const SpectrumTable& table);

// The sample's table: read from its ".spef" when sound and up to date,
// else computed and written there (a file that cannot be written is left
// out; the table is still returned). False only when nothing could be
// computed.
bool GetSpectrum(const char* samplePath, const int16_t* words, int32_t frames, int32_t stride, int32_t rate,
                 const double* f0, int32_t f0Count, double average, SpectrumTable* out);
