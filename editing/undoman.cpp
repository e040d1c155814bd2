#include "editing/undoman.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "editing/noteman.h"
#include "editing/noteserial.h"
#include "editing/recovery.h"
#include "editing/scaleman.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

namespace {

// The session protocol's guards: a broken protocol is a programming error.
[[noreturn]] void assertionFailed(const char* expression, const char* file, int line) {
  const char* name = strrchr(file, '/');
  fprintf(stderr, "%s:%d: assertion \"%s\" failed\n", name != nullptr ? name + 1 : file, line, expression);
  abort();
}
#define UNDO_ASSERT(e) ((e) ? static_cast<void>(0) : assertionFailed(#e, __FILE__, __LINE__))

struct CommandTitle {
  uint32_t code;
  const char* title;
};

const CommandTitle kTitles[] = {
    {undo::kDelete, "音符の削除"},       {undo::kAdd, "音符の追加"},
    {undo::kMove, "音符の移動"},         {undo::kSet, "音符の変更"},
    {undo::kLength, "長さの変更"},       {undo::kPitch, "ピッチの変更"},
    {undo::kVibrato, "ビブラートの変更"}, {undo::kEnvelope, "エンベロープの変更"},
    {undo::kIntensity, "ボリュームの変更"}, {undo::kTempo, "テンポの変更"},
    {undo::kLyric, "歌詞の変更"},         {undo::kTimeSignature, "拍子記号"},
    {undo::kQuantize, "クォンタイズ"},    {undo::kSplit, "音符の分割"},
    {undo::kJoin, "音符の結合"},
};

bool isParameterKind(uint32_t cmd) {
  return cmd == undo::kIntensity || cmd == undo::kLength || cmd == undo::kLyric || cmd == undo::kEnvelope ||
         cmd == undo::kPitch || cmd == undo::kTempo || cmd == undo::kVibrato;
}

bool isStructuralKind(uint32_t cmd) {
  return cmd == undo::kMove || cmd == undo::kQuantize || cmd == undo::kSplit || cmd == undo::kJoin;
}

void freeData(UndoData* data) {
  free(data->indexes);
  free(data->data);
  free(data->places);
  *data = UndoData();
}

int32_t* makeIndexes(const std::vector<int32_t>& indexes) {
  int32_t* list = static_cast<int32_t*>(malloc(sizeof(int32_t) * (indexes.size() + 1)));
  if (list == nullptr) return nullptr;
  list[0] = static_cast<int32_t>(indexes.size());
  std::copy(indexes.begin(), indexes.end(), list + 1);
  return list;
}

std::vector<int32_t> indexList(const int32_t* list) {
  if (list == nullptr) return {};
  return std::vector<int32_t>(list + 1, list + 1 + list[0]);
}

// Moves a built byte string into the record (absent when empty or out of memory).
void setBytes(UndoData* record, const std::vector<uint8_t>& bytes) {
  free(record->data);
  record->data = nullptr;
  record->size = 0;
  if (bytes.empty()) return;
  record->data = static_cast<uint8_t*>(malloc(bytes.size()));
  if (record->data == nullptr) return;
  memcpy(record->data, bytes.data(), bytes.size());
  record->size = static_cast<uint32_t>(bytes.size());
}

void appendBytes(std::vector<uint8_t>* out, const void* data, size_t n) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  out->insert(out->end(), p, p + n);
}

// The serialized form cannot tell a missing pitch list from an empty one,
// while the project writer can (an empty list is still written). One byte
// after each recorded note or pitch line keeps which lists were there.
uint8_t presence(const NoteData& note) {
  return static_cast<uint8_t>((note.PBS != nullptr) | (note.PBW != nullptr) << 1 | (note.PBY != nullptr) << 2 |
                              (note.PBM != nullptr) << 3);
}

void applyPresence(NoteData* note, uint8_t mask) {
  auto floats = [](float** list, bool present) {
    if (!present) {
      free(*list);
      *list = nullptr;
    } else if (*list == nullptr && (*list = static_cast<float*>(malloc(sizeof(float)))) != nullptr) {
      (*list)[0] = 0.0f;
    }
  };
  floats(&note->PBS, mask & 1);
  floats(&note->PBW, mask & 2);
  floats(&note->PBY, mask & 4);
  if (!(mask & 8)) {
    free(note->PBM);
    note->PBM = nullptr;
  } else if (note->PBM == nullptr && (note->PBM = static_cast<uint8_t*>(malloc(1))) != nullptr) {
    note->PBM[0] = 0;
  }
}

void appendNote(std::vector<uint8_t>* out, const NoteData& note) {
  const size_t at = out->size();
  out->resize(at + static_cast<size_t>(CNoteSerial::serialLength(&note)));
  CNoteSerial::serialize(&note, out->data() + at);
  out->push_back(presence(note));
}

// A note list: the count, then each note with its Delta the distance from
// the previous recorded note's start (the first: from tick 0).
std::vector<uint8_t> noteList(ctonm2& engine, const std::vector<int32_t>& indexes) {
  std::vector<uint8_t> out;
  const int32_t count = static_cast<int32_t>(indexes.size());
  appendBytes(&out, &count, sizeof count);
  int64_t start = 0, previous = 0;
  int32_t walked = -1;
  for (int32_t index : indexes) {
    while (walked < index) start += engine.notes[++walked].Delta;
    NoteData note = engine.notes[index];
    note.Delta = static_cast<int32_t>(start - previous);
    previous = start;
    appendNote(&out, note);
  }
  return out;
}

std::vector<uint8_t> wholeNotes(ctonm2& engine, const std::vector<int32_t>& indexes) {
  std::vector<uint8_t> out;
  const int32_t count = static_cast<int32_t>(indexes.size());
  appendBytes(&out, &count, sizeof count);
  for (int32_t index : indexes) {
    if (index < engine.noteCount) appendNote(&out, engine.notes[index]);
  }
  return out;
}

// The parameter one kind records, per note.
std::vector<uint8_t> parameters(ctonm2& engine, uint32_t cmd, const std::vector<int32_t>& indexes) {
  std::vector<uint8_t> out;
  const int32_t count = static_cast<int32_t>(indexes.size());
  appendBytes(&out, &count, sizeof count);
  NoteData empty;  // stands for a missing note: keeps the count and the layout
  memset(&empty, 0, sizeof empty);
  for (int32_t index : indexes) {
    NoteData* note = engine.get_note(index);
    if (note == nullptr) note = &empty;
    switch (cmd) {
      case undo::kEnvelope: appendBytes(&out, note->Envelope, sizeof note->Envelope); break;
      case undo::kIntensity: appendBytes(&out, &note->Intensity, sizeof note->Intensity); break;
      case undo::kLength: appendBytes(&out, &note->Length, sizeof note->Length); break;
      case undo::kLyric: appendBytes(&out, note->Lyric, sizeof note->Lyric); break;
      case undo::kTempo: appendBytes(&out, &note->Tempo, sizeof note->Tempo); break;
      case undo::kVibrato: appendBytes(&out, note->VBR, sizeof note->VBR); break;
      case undo::kPitch: {
        const size_t at = out.size();
        out.resize(at + static_cast<size_t>(CNoteSerial::serializePitch(note, nullptr)));
        CNoteSerial::serializePitch(note, out.data() + at);
        out.push_back(presence(*note));
        break;
      }
    }
  }
  return out;
}

std::vector<uint8_t> timeSignatures(CScaleMan& scale) {
  const int32_t size = scale.serialize2text(nullptr, 0);
  std::vector<uint8_t> text(static_cast<size_t>(std::max(size, 1)), 0);
  scale.serialize2text(reinterpret_cast<char*>(text.data()), static_cast<int32_t>(text.size()));
  return text;
}

}  // namespace

const char* undoCommandTitle(uint32_t code) {
  for (const CommandTitle& entry : kTitles) {
    if (entry.code == code) return entry.title;
  }
  return nullptr;
}

CUndoMan::CUndoMan(CNoteMan* notes) : notes_(notes) {}

CUndoMan::~CUndoMan() {
  for (UndoData& data : undoList_) freeData(&data);
  for (UndoData& data : redoList_) freeData(&data);
  freeData(&pendingUndo_);
  freeData(&pendingRedo_);
}

std::vector<int32_t> CUndoMan::selectedIndexes() const {
  std::vector<int32_t> indexes;
  const ctonm2& engine = *notes_->engine();
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].selected != 0) indexes.push_back(i);
  }
  return indexes;
}

int32_t CUndoMan::selectCount() const { return notes_->getSelectCount(); }

// --- Sessions ------------------------------------------------------------------

void CUndoMan::recordStart(uint32_t cmd, const std::vector<int32_t>& indexes, bool single) {
  freeData(&pendingUndo_);
  freeData(&pendingRedo_);
  ctonm2& engine = *notes_->engine();
  if (cmd == undo::kSet) {
    pendingUndo_.cmd = undo::kSet;
    pendingUndo_.indexes = makeIndexes(indexes);
    setBytes(&pendingUndo_, wholeNotes(engine, indexes));
  } else if (cmd == undo::kDelete) {
    pendingUndo_.cmd = undo::kAdd;
    pendingUndo_.places = makeIndexes(indexes);
    setBytes(&pendingUndo_, noteList(engine, indexes));
    pendingRedo_.cmd = undo::kDelete;
    pendingRedo_.indexes = makeIndexes(indexes);
  } else if (isParameterKind(cmd)) {
    pendingUndo_.cmd = cmd;
    pendingUndo_.indexes = makeIndexes(indexes);
    setBytes(&pendingUndo_, parameters(engine, cmd, indexes));
  } else if (isStructuralKind(cmd)) {
    pendingUndo_.cmd = cmd;
    pendingUndo_.places = makeIndexes(indexes);
    setBytes(&pendingUndo_, noteList(engine, indexes));
    pendingRedo_.cmd = cmd;
    pendingRedo_.indexes = makeIndexes(indexes);
  } else if (cmd == undo::kTimeSignature && single) {
    pendingUndo_.cmd = cmd;
    setBytes(&pendingUndo_, timeSignatures(*notes_->scale()));
  }
}

void CUndoMan::recordEnd(uint32_t cmd, const std::vector<int32_t>& indexes, bool single) {
  ctonm2& engine = *notes_->engine();
  if (cmd == undo::kSet || isParameterKind(cmd)) {
    // The same notes as at the start.
    const std::vector<int32_t> same = pendingUndo_.indexes != nullptr ? indexList(pendingUndo_.indexes) : indexes;
    pendingRedo_.cmd = cmd;
    free(pendingRedo_.indexes);
    pendingRedo_.indexes = makeIndexes(same);
    setBytes(&pendingRedo_, cmd == undo::kSet ? wholeNotes(engine, same) : parameters(engine, cmd, same));
  } else if (cmd == undo::kAdd) {
    pendingUndo_.cmd = undo::kDelete;
    pendingUndo_.indexes = makeIndexes(indexes);
    pendingRedo_.cmd = undo::kAdd;
    pendingRedo_.places = makeIndexes(indexes);
    setBytes(&pendingRedo_, noteList(engine, indexes));
  } else if (isStructuralKind(cmd)) {
    pendingUndo_.cmd = cmd;
    free(pendingUndo_.indexes);
    pendingUndo_.indexes = makeIndexes(indexes);
    pendingRedo_.cmd = cmd;
    free(pendingRedo_.places);
    pendingRedo_.places = makeIndexes(indexes);
    setBytes(&pendingRedo_, noteList(engine, indexes));
  } else if (cmd == undo::kTimeSignature && single) {
    pendingRedo_.cmd = cmd;
    setBytes(&pendingRedo_, timeSignatures(*notes_->scale()));
  }
}

void CUndoMan::beginSession(uint32_t cmd) {
  sessionCmd_ = cmd;
  sessionSelected_ = selectCount();
  freeData(&pendingUndo_);
  freeData(&pendingRedo_);
  if (sessionSelected_ == 0) return;
  recordStart(cmd, selectedIndexes(), false);
}

int32_t CUndoMan::endSession(uint32_t cmd, UndoCallback* callback) {
  const uint32_t scmd = sessionCmd_;
  UNDO_ASSERT(scmd == cmd);
  const std::vector<int32_t> selected = selectedIndexes();
  if (selected.empty() && sessionSelected_ == 0) return 0;
  // Only "add " records everything at the end; any other kind that found
  // nothing selected at the start has no state to go back to.
  if ((cmd == undo::kAdd && selected.empty()) || (cmd != undo::kAdd && sessionSelected_ == 0)) {
    freeData(&pendingUndo_);
    freeData(&pendingRedo_);
    return 0;
  }
  recordEnd(cmd, selected, false);
  return pushUndo(callback);
}

void CUndoMan::beginSession(int32_t index, uint32_t cmd) {
  sessionCmd_ = cmd;
  freeData(&pendingUndo_);
  freeData(&pendingRedo_);
  // A session over no note records nothing ("add " and "tmsg" need none).
  sessionSelected_ = cmd == undo::kTimeSignature || cmd == undo::kAdd || notes_->getNote(index) != nullptr;
  if (sessionSelected_ == 0) return;
  recordStart(cmd, {index}, true);
}

int32_t CUndoMan::endSession(int32_t index, uint32_t cmd, UndoCallback* callback) {
  const uint32_t scmd = sessionCmd_;
  UNDO_ASSERT(scmd == cmd);
  if (sessionSelected_ == 0 ||
      (cmd != undo::kTimeSignature && cmd != undo::kDelete && notes_->getNote(index) == nullptr)) {
    freeData(&pendingUndo_);
    freeData(&pendingRedo_);
    return 0;
  }
  recordEnd(cmd, {index}, true);
  return pushUndo(callback);
}

// --- The history ---------------------------------------------------------------

int32_t CUndoMan::pushUndo(UndoCallback* callback) {
  if (pendingUndo_.data != nullptr && pendingRedo_.data != nullptr && pendingUndo_.size == pendingRedo_.size &&
      memcmp(pendingUndo_.data, pendingRedo_.data, pendingUndo_.size) == 0) {
    freeData(&pendingUndo_);  // the edit changed nothing
    freeData(&pendingRedo_);
    return 0;
  }
  // A push discards the redo branch. Only a history that is full up to
  // its position drops its oldest step: a redo step kept below the new
  // one would later be undone without ever having been redone. A save
  // point on the discarded branch can never be reached again.
  if (savePoint_ > position_) savePoint_ = -1;
  for (int32_t k = position_; k < count_; ++k) {
    freeData(&undoList_[k]);
    freeData(&redoList_[k]);
  }
  count_ = position_;
  if (count_ == kMaxSteps) {
    freeData(&undoList_[0]);
    freeData(&redoList_[0]);
    undoList_.erase(undoList_.begin());
    redoList_.erase(redoList_.begin());
    --count_;
    savePoint_ = savePoint_ > 0 ? savePoint_ - 1 : -1;  // a save point dropped with its step is unreachable
  }
  undoList_.resize(static_cast<size_t>(count_));
  redoList_.resize(static_cast<size_t>(count_));
  undoList_.push_back(pendingUndo_);
  redoList_.push_back(pendingRedo_);
  pendingUndo_ = UndoData();
  pendingRedo_ = UndoData();
  position_ = ++count_;
  notify(callback);
  return 1;
}

void CUndoMan::undo(UndoCallback* callback) {
  if (position_ <= 0) return;
  --position_;
  processData(undoList_[static_cast<size_t>(position_)]);
  notify(callback);
}

void CUndoMan::redo(UndoCallback* callback) {
  if (position_ >= count_) return;
  processData(redoList_[static_cast<size_t>(position_)]);
  ++position_;
  notify(callback);
}

uint32_t CUndoMan::getNextUndo() const {
  return position_ > 0 ? redoList_[static_cast<size_t>(position_ - 1)].cmd : 0;
}

uint32_t CUndoMan::getNextRedo() const { return position_ < count_ ? redoList_[static_cast<size_t>(position_)].cmd : 0; }

bool CUndoMan::getModify2() {
  if (mark2_ == position_) return false;
  mark2_ = position_;
  return true;
}

bool CUndoMan::getModify3() {
  if (mark3_ == position_) return false;
  mark3_ = position_;
  return true;
}

void CUndoMan::notify(UndoCallback* callback) {
  if (callback != nullptr) (*callback)(getNextUndo(), getNextRedo(), getModified());
}

void CUndoMan::setSavePoint(UndoCallback* callback) {
  savePoint_ = position_;
  otherModified_ = false;
  if (callback != nullptr) (*callback)(getNextUndo(), getNextRedo(), false);
}

void CUndoMan::setOtherModified(UndoCallback* callback) {
  otherModified_ = true;
  if (callback != nullptr) (*callback)(getNextUndo(), getNextRedo(), true);
}

void CUndoMan::clean(UndoCallback* callback) {
  for (UndoData& data : undoList_) freeData(&data);
  for (UndoData& data : redoList_) freeData(&data);
  undoList_.clear();
  redoList_.clear();
  freeData(&pendingUndo_);
  freeData(&pendingRedo_);
  count_ = position_ = savePoint_ = 0;
  otherModified_ = false;
  notify(callback);
}

size_t CUndoMan::memoryUsed() const {
  size_t bytes = sizeof(UndoData) * (undoList_.capacity() + redoList_.capacity());
  auto add = [&](const UndoData& data) {
    bytes += data.size;
    if (data.indexes != nullptr) bytes += sizeof(int32_t) * static_cast<size_t>(data.indexes[0] + 1);
    if (data.places != nullptr) bytes += sizeof(int32_t) * static_cast<size_t>(data.places[0] + 1);
  };
  for (const UndoData& data : undoList_) add(data);
  for (const UndoData& data : redoList_) add(data);
  add(pendingUndo_);
  add(pendingRedo_);
  return bytes;
}

// --- Replay --------------------------------------------------------------------

namespace {

// Inserts a recorded note list: at the recorded places when they are given
// (ascending), else each before the first note starting where it does.
void insertList(CNoteMan& notes, const UndoData& record) {
  if (record.data == nullptr || record.size < 4) return;
  ctonm2& engine = *notes.engine();
  int32_t count = 0;
  memcpy(&count, record.data, sizeof count);
  const bool placed = record.places != nullptr && record.places[0] == count;
  const uint8_t* p = record.data + 4;
  const uint8_t* end = record.data + record.size;
  int64_t running = 0, cursorStart = 0;
  int32_t cursor = -1;  // the note whose start is cursorStart (-1: tick 0)
  for (int32_t k = 0; k < count && p < end; ++k) {
    NoteData note;
    memset(&note, 0, sizeof note);
    p += CNoteSerial::unserialize(p, &note);
    applyPresence(&note, *p++);
    running += note.Delta;
    if (!placed) {
      if (notes.insertNotePosition(running, &note) < 0) ctonm2::note_clear(&note);
      continue;
    }
    const int32_t place = std::clamp(record.places[k + 1], 0, engine.noteCount);
    if (place <= cursor) cursor = -1, cursorStart = 0;
    while (cursor < place - 1) cursorStart += engine.notes[++cursor].Delta;
    note.Delta = static_cast<int32_t>(running - cursorStart);
    if (place < engine.noteCount) engine.notes[place].Delta -= note.Delta;
    if (engine.insert_note(place, &note) < 0) {
      if (place < engine.noteCount) engine.notes[place].Delta += note.Delta;
      ctonm2::note_clear(&note);
      break;
    }
    cursor = place;
    cursorStart = running;
  }
}

void deleteIndexes(CNoteMan& notes, const int32_t* indexes) {
  if (indexes == nullptr) return;
  for (int32_t k = indexes[0]; k >= 1; --k) notes.deleteNote(indexes[k]);
}

}  // namespace

void CUndoMan::processData(const UndoData& record) {
  ctonm2& engine = *notes_->engine();
  const uint32_t cmd = record.cmd;
  if (cmd == undo::kDelete) {
    deleteIndexes(*notes_, record.indexes);
  } else if (cmd == undo::kAdd) {
    insertList(*notes_, record);
  } else if (isStructuralKind(cmd)) {
    deleteIndexes(*notes_, record.indexes);
    insertList(*notes_, record);
  } else if (cmd == undo::kSet || isParameterKind(cmd)) {
    if (record.data == nullptr || record.indexes == nullptr) return;
    int32_t n = 0;
    memcpy(&n, record.data, sizeof n);
    const int32_t cnt = record.indexes[0];
    UNDO_ASSERT(n == cnt);
    const uint8_t* p = record.data + 4;
    for (int32_t k = 1; k <= cnt; ++k) {
      NoteData* note = engine.get_note(record.indexes[k]);
      NoteData scratch;
      memset(&scratch, 0, sizeof scratch);
      NoteData* target = note != nullptr ? note : &scratch;  // a missing note's value is skipped
      switch (cmd) {
        case undo::kSet: {
          const int32_t delta = target->Delta;
          ctonm2::note_clear(target);
          p += CNoteSerial::unserialize(p, target);
          applyPresence(target, *p++);
          target->Delta = delta;
          break;
        }
        case undo::kEnvelope: p = CNoteSerial::bread(p, target->Envelope, sizeof target->Envelope); break;
        case undo::kIntensity: p = CNoteSerial::bread(p, &target->Intensity, sizeof target->Intensity); break;
        case undo::kLength: p = CNoteSerial::bread(p, &target->Length, sizeof target->Length); break;
        case undo::kLyric: p = CNoteSerial::bread(p, target->Lyric, sizeof target->Lyric); break;
        case undo::kTempo: p = CNoteSerial::bread(p, &target->Tempo, sizeof target->Tempo); break;
        case undo::kVibrato: p = CNoteSerial::bread(p, target->VBR, sizeof target->VBR); break;
        case undo::kPitch:
          p += CNoteSerial::unserializePitch(target, p);
          applyPresence(target, *p++);
          break;
      }
      if (target == &scratch) ctonm2::note_clear(&scratch);
    }
  } else if (cmd == undo::kTimeSignature) {
    if (record.data != nullptr) notes_->scale()->unserializeText(reinterpret_cast<const char*>(record.data));
  }
}

// --- The editor's notification -------------------------------------------------

std::string undoMenuTitle(uint32_t code) {
  const char* title = undoCommandTitle(code);
  return title != nullptr ? std::string(title) + "を元に戻す" : "元に戻す";
}

std::string redoMenuTitle(uint32_t code) {
  const char* title = undoCommandTitle(code);
  return title != nullptr ? std::string(title) + "をやり直し" : "やり直し";
}

std::string recoveryFilePath() {
  const std::string folder = userFolder(UserFolder::kRecovery);
  return folder.empty() ? std::string() : folder + "/.temp.snt";
}

bool writeRecoveryFile(CNoteMan& notes, const std::string& path) {
  SafeOutput out(path);
  if (out.path().empty()) return false;
  ctonm2& engine = *notes.engine();
  const int32_t version = engine.sntVersion;
  engine.sntVersion = 200;  // the full form: a recovery copy loses nothing
  const bool written = notes.writeSnt(out.path().c_str(), notes.defaultPath().c_str()) == 1;
  engine.sntVersion = version;
  return written && out.commit();
}

void undo_callback(CNoteMan& notes, UndoView* view, uint32_t undoCode, uint32_t redoCode, bool modified,
                   const std::string& recoveryPath) {
  if (view != nullptr) {
    view->setMenuTitles(undoMenuTitle(undoCode), redoMenuTitle(redoCode));
    view->setEdited(modified);
  }
  std::string path = recoveryPath;
  if (path.empty()) {
    const std::string folder = userFolder(UserFolder::kRecovery, true);
    if (folder.empty()) return;
    path = folder + "/.temp.snt";
  }
  if (modified) {
    writeRecoveryCopy(notes, path, notes.engine()->projectPath);
  } else {
    removeRecoveryCopy(path);
  }
}

void CUndoNotifier::operator()(uint32_t undoCode, uint32_t redoCode, bool modified) {
  if (keepRecovery_) {
    undo_callback(notes_, view_, undoCode, redoCode, modified, recoveryPath_);
  } else if (view_ != nullptr) {
    view_->setMenuTitles(undoMenuTitle(undoCode), redoMenuTitle(redoCode));
    view_->setEdited(modified);
  }
}
