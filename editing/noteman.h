// CNoteMan: the editing layer over one engine and its voice set.
//
// This holds what opening and saving a project need; the note edits
// (selection, insertion, moving, quantizing, lyric flow-in, envelope,
// vibrato and pitch-point edits) join it with the editing work.
#pragma once

#include <cstdint>
#include <memory>

#include "engine/ctonm2.h"
#include "voicebank/voiceset.h"

class CScaleMan;

// The application's one time-signature list, shared by the views, the
// undo history and the project reader and writer.
CScaleMan& applicationScale();

class CNoteMan {
 public:
  // Creates the engine and its voice set; `scale` defaults to the
  // application's list.
  explicit CNoteMan(CScaleMan* scale = nullptr);
  ~CNoteMan();
  CNoteMan(const CNoteMan&) = delete;
  CNoteMan& operator=(const CNoteMan&) = delete;

  ctonm2* engine() { return engine_.get(); }
  CScaleMan* scale() { return scale_; }

  // Empties the engine and reads a project (time signatures into the scale,
  // texts to UTF-8, place-holders expanded, the project path kept).
  // Returns the note-section count, or -1 for an empty path or a file that
  // cannot be opened. defaultPath stands for "${DEFAULT}" (may be null).
  int32_t openSnt(const char* path, const char* defaultPath);
  // Saves in the form of the engine's sntVersion (below 200: the 1.2 form).
  // 1 on success, 0 when the file cannot be created or written.
  int32_t writeSnt(const char* path, const char* defaultPath);
  void freeSnt() { engine_->free_snt(); }

 private:
  int32_t* snapshot_ = nullptr;  // Delta, NoteNum, Length per note, for drags
  std::unique_ptr<cvoiceset> voiceset_;
  std::unique_ptr<ctonm2> engine_;
  [[maybe_unused]] int32_t anchor_ = -1;  // fixed end of a range selection
  CScaleMan* scale_;
};
