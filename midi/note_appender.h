// Filling a note list from an imported melody: notes that come in time
// order are appended, others inserted where they belong; tempo changes
// ride on rest records of their own, as the project reader keeps them.
#pragma once

#include <cstdint>
#include <cstring>

#include "editing/noteman.h"
#include "engine/ctonm2.h"

// The zero-length rest record that carries a tempo change in the list.
inline NoteData tempoRecord(float bpm, int32_t layer) {
  NoteData rest;
  memset(&rest, 0, sizeof rest);
  rest.Tempo = bpm;
  rest.NoteNum = 48;
  rest.Velocity = 100.0f;
  ctonm2::default_env(rest.Envelope);
  rest.layer = layer;
  return rest;
}

// Appends to the note list quickly when the note starts at or after the
// last one (the usual case), else inserts it where it belongs. A note that
// could not be added has its arrays freed.
class NoteAppender {
 public:
  explicit NoteAppender(CNoteMan* man) : man_(man) {
    const ctonm2& engine = *man->engine();
    for (int32_t i = 0; i < engine.noteCount; ++i) lastStart_ += engine.notes[i].Delta;
  }
  bool add(int64_t position, NoteData* note) {
    ctonm2& engine = *man_->engine();
    int32_t slot;
    if (position >= lastStart_) {
      note->Delta = static_cast<int32_t>(position - lastStart_);
      slot = engine.insert_note(engine.noteCount, note);
      if (slot >= 0) lastStart_ = position;
    } else {
      slot = man_->insertNotePosition(position, note);
    }
    if (slot < 0) ctonm2::note_clear(note);
    return slot >= 0;
  }

 private:
  CNoteMan* man_;
  int64_t lastStart_ = 0;
};
