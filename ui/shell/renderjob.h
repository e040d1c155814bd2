// RenderJob: renders a document to a WAV file on worker threads while the
// window stays responsive. The caller polls progress() and calls finish()
// once done() (or cancel() to stop: nothing is written then).
#pragma once

#include <QString>
#include <atomic>
#include <cstdint>
#include <thread>

#include "render/renderfile.h"

class EditorDocument;

class RenderJob {
 public:
  RenderJob() = default;
  ~RenderJob();
  RenderJob(const RenderJob&) = delete;
  RenderJob& operator=(const RenderJob&) = delete;

  // Starts rendering notes first..last (-1: every note), with the
  // document's backing track mixed in when withBacking (and it is not
  // muted); false with *error when nothing there sounds.
  bool start(EditorDocument* document, const QString& output, int threads, QString* error, int32_t first = -1,
             int32_t last = -1, bool withBacking = false);
  bool done() const { return done_.load(); }
  // Notes rendered and notes in all.
  int rendered() const { return rendered_.load(); }
  int total() const { return total_.load(); }
  void cancel();
  // Waits for the render, written as it went to a temporary name that now
  // replaces the file. False with *error when it could not be written or
  // was stopped.
  bool finish(QString* error);

 private:
  static void progress(void* context, int32_t done, int32_t total);

  EditorDocument* document_ = nullptr;
  QString output_;
  std::thread worker_;
  RenderFileResult result_;
  std::atomic<bool> done_{false};
  std::atomic<int> rendered_{0};
  std::atomic<int> total_{0};
};
