#include "ui/shell/renderjob.h"

#include <QObject>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "render/cache.h"
#include "render/wavefile.h"
#include "support/safe_output.h"
#include "ui/shell/document.h"

namespace {

double* cacheGet(int32_t index, const NoteData* note, int32_t* bytes) {
  return CCacheSys::getCache(index, note, bytes);
}
void cachePut(int32_t index, const NoteData* note, const double* data, int32_t bytes) {
  CCacheSys::putCache(index, note, data, bytes);
}

}  // namespace

RenderJob::~RenderJob() {
  if (worker_.joinable()) {
    cancel();
    worker_.join();
  }
  free(block_);
}

void RenderJob::progress(void* context, int32_t done, int32_t total) {
  auto* job = static_cast<RenderJob*>(context);
  job->rendered_ = done;
  job->total_ = total;
}

bool RenderJob::start(EditorDocument* document, const QString& output, int threads, QString* error, int32_t first,
                      int32_t last, bool withBacking) {
  document_ = document;
  output_ = output;
  ctonm2& engine = document->engine();
  const bool whole = first < 0 || last < first;
  if (whole) first = 0, last = engine.noteCount - 1;
  last = std::min(last, engine.noteCount - 1);
  engine.preparationNotes();
  engine.makePitchMode2();
  bool sounding = false;
  for (int32_t i = first; i <= last && !sounding; ++i) {
    sounding = !ctonm2::is_r(engine.notes[i].Lyric) && engine.notes[i].VoiceFile != nullptr;
  }
  if (!sounding) {
    *error = QObject::tr("Nothing to render: no note has a voice bank entry");
    document->touch();
    return false;
  }
  total_ = last - first + 1;
  engine.progressContext = this;
  engine.cacheGet = cacheGet;
  engine.cachePut = cachePut;
  const BackingTrack& backing = document->backing();
  const bool mixed = withBacking && !backing.empty() && !backing.muted;
  engine.underlay = mixed ? BackingTrack::lay : nullptr;
  engine.underlayContext = const_cast<BackingTrack*>(&backing);
  // The whole song goes on while its accompaniment does; a part, only its notes.
  engine.underlayEndMs = mixed && whole ? backing.offsetMs + backing.lengthMs() : 0.0;
  worker_ = std::thread([this, &engine, threads, first, last] {
    block_ = engine.render_number_by_thread(first, last, &size_, threads, progress);
    done_ = true;
  });
  return true;
}

void RenderJob::cancel() {
  cancelled_ = true;
  if (document_ != nullptr && document_->engine().renderState.load() != 0) document_->engine().render_stop();
}

bool RenderJob::finish(QString* error) {
  if (worker_.joinable()) worker_.join();
  ctonm2& engine = document_->engine();
  engine.progressContext = nullptr;
  engine.cacheGet = nullptr;
  engine.cachePut = nullptr;
  engine.underlay = nullptr;
  engine.underlayEndMs = 0.0;
  document_->touch();
  if (cancelled_) {
    *error = QObject::tr("Stopped: nothing was written");
    return false;
  }
  if (block_ == nullptr) {
    *error = QObject::tr("Nothing to render");
    return false;
  }
  CCacheSys::trim(CCacheSys::kDefaultLimit);
  // The file gets a clean RIFF head of its own (44 bytes; the mix block's is 48).
  const int32_t dataBytes = size_ + 8 - 48;
  errno = 0;
  SafeOutput file(output_.toStdString());
  const bool written =
      !file.path().empty() &&
      saveWaveFile(file.path().c_str(), reinterpret_cast<const int16_t*>(block_ + 48), dataBytes, 16, 1, 44100) == 0 &&
      file.commit();
  free(block_);
  block_ = nullptr;
  if (!written) {
    *error =
        QObject::tr("Cannot write %1: %2").arg(output_, QString::fromLocal8Bit(strerror(errno != 0 ? errno : EIO)));
    return false;
  }
  return true;
}
