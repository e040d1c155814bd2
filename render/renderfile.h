// A render written straight into a WAV file, stretch by stretch: a song
// of any length takes the memory of one stretch (10 minutes), and one
// longer than a RIFF size holds (13 h 31 min) is written as RF64. The
// file is written through a temporary that replaces the target only when
// the render is complete.
#pragma once

#include <cstdint>
#include <string>

#include "engine/ctonm2.h"

enum class RenderFileStatus { kWritten, kNothingSounds, kStopped, kNoMemory, kWriteFailed };

struct RenderFileResult {
  RenderFileStatus status = RenderFileStatus::kNothingSounds;
  int error = 0;         // errno of a write that failed
  int64_t samples = 0;   // written, at 44100 Hz
};

// The samples of one stretch.
constexpr int32_t kRenderStretchSamples = 44100 * 600;

// Renders notes first..last of a prepared engine on `threads` workers into
// `output` ("-" for standard output). The engine's hooks (cache, underlay,
// progress context) are used as they are set.
RenderFileResult renderToWaveFile(ctonm2& engine, int32_t first, int32_t last, int32_t threads,
                                  ctonm2::Progress progress, const std::string& output);
