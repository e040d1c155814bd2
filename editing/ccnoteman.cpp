#include "editing/ccnoteman.h"

#include <cstdlib>
#include <cstring>
#include <string>

CCNoteMan::CCNoteMan(CScaleMan* scale)
    : noteman_(new CNoteMan(scale)), undoman_(new CUndoMan(noteman_.get())), notifier_(*noteman_, nullptr) {}

CCNoteMan::~CCNoteMan() {
  free(clipPBW_);
  free(clipPBS_);
  free(clipPBY_);
  free(clipPBM_);
}

void CCNoteMan::copyTo(float** dst, const float* src) {
  free(*dst);
  *dst = nullptr;
  if (src == nullptr) return;
  const size_t bytes = sizeof(float) * static_cast<size_t>(floatListCount(src) + 1);
  *dst = static_cast<float*>(malloc(bytes));
  if (*dst == nullptr) return;
  memcpy(*dst, src, bytes);
  if (floatListCount(src) == 0) (*dst)[0] = 0.0f;
}

void CCNoteMan::copyCharTo(uint8_t** dst, const uint8_t* src) {
  free(*dst);
  *dst = nullptr;
  if (src == nullptr) return;
  const size_t bytes = static_cast<size_t>(byteListCount(src)) + 1;
  *dst = static_cast<uint8_t*>(malloc(bytes));
  if (*dst != nullptr) memcpy(*dst, src, bytes);
}

void CCNoteMan::copyPB(const NoteData* note) {
  if (note == nullptr) return;
  copyTo(&clipPBS_, note->PBS);
  copyTo(&clipPBW_, note->PBW);
  copyTo(&clipPBY_, note->PBY);
  copyCharTo(&clipPBM_, note->PBM);
}

void CCNoteMan::pastePB(NoteData* note) {
  if (note == nullptr) return;
  copyTo(&note->PBS, clipPBS_);
  copyTo(&note->PBW, clipPBW_);
  copyTo(&note->PBY, clipPBY_);
  copyCharTo(&note->PBM, clipPBM_);
}

int32_t CCNoteMan::changeVoiceSet(const char* path, bool modified) {
  ctonm2& engine = *noteman_->engine();
  std::string folder = path != nullptr ? path : "";
  if (!folder.empty() && folder.back() != '/') folder += '/';
  const bool differs = path != nullptr && folder != engine.voiceDir;
  if (!differs && modified) return 0;
  if (differs) engine.set_voiceDir(path);
  const int32_t result = noteman_->readVoiceset();
  engine.preparationNotes();
  engine.makePitchMode2();
  if (differs && modified) undoman_->setOtherModified(&notifier_);
  return result;
}

int32_t CCNoteMan::normalizeAll() {
  ctonm2& engine = *noteman_->engine();
  int32_t moved = 0;
  // An insertion sort: the notes before i are in order, and each pass of
  // normalizeNotes swaps out-of-order neighbours only, so the loop ends.
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    while (engine.notes[i].Delta < 0) {
      noteman_->normalizeNotes(i);
      ++moved;
    }
  }
  return moved;
}

int32_t CCNoteMan::dragSelection(int32_t dTicks, int32_t dNote, int32_t step) {
  noteman_->synchronizeNotes();
  const int32_t count = noteman_->moveSelectedNotes(dTicks, dNote, step);
  normalizeAll();
  noteman_->synchronizeNotes();
  return count;
}

int32_t CCNoteMan::resizeSelection(int32_t dTicks, int32_t step) {
  noteman_->synchronizeNotes();
  const int32_t count = noteman_->sizeSelectedNotes(dTicks, step);
  noteman_->synchronizeNotes();
  return count;
}

int32_t CCNoteMan::quantizeSelection(int32_t step) {
  const int32_t count = noteman_->quontizeSelectedNotes(step);
  normalizeAll();
  noteman_->synchronizeNotes();
  return count;
}

int32_t CCNoteMan::setTempoAt(int64_t tick, float tempo) {
  CNoteMan& man = *noteman_;
  ctonm2& engine = *man.engine();
  int32_t at = -1;
  for (int32_t i = 0; i < engine.noteCount && at < 0; ++i) {
    if (man.getPosition(i) == tick) at = i;
  }
  if (at >= 0) {
    undoman_->beginSession(at, undo::kTempo);
    man.setTempo(at, tempo);
    undoman_->endSession(at, undo::kTempo, &notifier_);
    return at;
  }
  if (tempo <= 0.0f) return -1;
  NoteData rest;
  memset(&rest, 0, sizeof rest);
  ctonm2::default_env(rest.Envelope);
  rest.Intensity = 100;
  rest.Velocity = 100.0f;
  rest.Tempo = tempo;
  undoman_->beginSession(-1, undo::kAdd);
  at = man.insertNotePosition(tick, &rest);
  undoman_->endSession(at, undo::kAdd, &notifier_);
  man.synchronizeNotes();
  return at;
}

float CCNoteMan::tempoAt(int64_t tick) {
  ctonm2& engine = *noteman_->engine();
  float tempo = engine.tempo;
  int64_t position = 0, latest = -1;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    position += engine.notes[i].Delta;
    if (engine.notes[i].Tempo > 0.0f && position <= tick && position >= latest) {
      tempo = engine.notes[i].Tempo;
      latest = position;
    }
  }
  return tempo;
}
