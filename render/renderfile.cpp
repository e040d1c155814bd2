#include "render/renderfile.h"

#include <cerrno>
#include <cstdio>

#include "render/wavefile.h"
#include "support/safe_output.h"

namespace {

// The output file as the stretches go into it; `error` is the errno of
// the first write that failed, 0 while none has.
struct StretchWriter {
  FILE* file = nullptr;
  int error = 0;

  bool write(const void* bytes, size_t count) {
    errno = 0;
    if (error == 0 && fwrite(bytes, 1, count, file) != count) error = errno != 0 ? errno : EIO;
    return error == 0;
  }
};

bool writeStretch(void* context, const int16_t* samples, int32_t count) {
  return static_cast<StretchWriter*>(context)->write(samples, static_cast<size_t>(count) * 2);
}

}  // namespace

RenderFileResult renderToWaveFile(ctonm2& engine, int32_t first, int32_t last, int32_t threads,
                                  ctonm2::Progress progress, const std::string& output) {
  RenderFileResult result;
  const int64_t total = engine.render_samples(first, last);
  if (total <= 0) {
    engine.free_pitch();
    return result;
  }
  errno = 0;
  SafeOutput file(output);
  StretchWriter writer;
  writer.file = file.path().empty() ? nullptr : fopen(file.path().c_str(), "wb");
  if (writer.file == nullptr) writer.error = errno != 0 ? errno : EIO;
  const std::string header = waveHeader(total * 2, 44100);
  int64_t handed = -1;
  if (writer.file != nullptr && writer.write(header.data(), header.size())) {
    handed = engine.render_number_streamed(first, last, threads, kRenderStretchSamples, progress, writeStretch,
                                           &writer);
  } else {
    engine.free_pitch();
  }
  if (writer.file != nullptr) {
    errno = 0;
    if (fclose(writer.file) != 0 && writer.error == 0) writer.error = errno != 0 ? errno : EIO;
  }
  // The render says -1 when stopped (or when a write failed), -2 when a
  // stretch's memory could not be had.
  if (writer.error == 0 && handed == -1) {
    result.status = RenderFileStatus::kStopped;
    return result;
  }
  if (writer.error == 0 && handed == -2) {
    result.status = RenderFileStatus::kNoMemory;
    return result;
  }
  errno = 0;
  if (writer.error != 0 || !file.commit()) {
    result.status = RenderFileStatus::kWriteFailed;
    result.error = writer.error != 0 ? writer.error : (errno != 0 ? errno : EIO);
    return result;
  }
  result.status = RenderFileStatus::kWritten;
  result.samples = handed;
  return result;
}
