#include "ui/shell/renderjob.h"

#include <QObject>
#include <algorithm>
#include <cstring>

#include "render/cache.h"
#include "render/renderfile.h"
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
  const std::string path = output_.toStdString();
  worker_ = std::thread([this, &engine, threads, first, last, path] {
    result_ = renderToWaveFile(engine, first, last, threads, progress, path);
    done_ = true;
  });
  return true;
}

void RenderJob::cancel() {
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
  CCacheSys::trim(CCacheSys::kDefaultLimit);
  switch (result_.status) {
    case RenderFileStatus::kWritten:
      return true;
    case RenderFileStatus::kStopped:
      *error = QObject::tr("Stopped: nothing was written");
      return false;
    case RenderFileStatus::kNothingSounds:
      *error = QObject::tr("Nothing to render");
      return false;
    case RenderFileStatus::kNoMemory:
      *error = QObject::tr("Not enough memory to render");
      return false;
    case RenderFileStatus::kWriteFailed:
      break;
  }
  *error = QObject::tr("Cannot write %1: %2").arg(output_, QString::fromLocal8Bit(strerror(result_.error)));
  return false;
}
