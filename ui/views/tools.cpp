#include "ui/views/tools.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "editing/undoman.h"
#include "ui/shell/document.h"
#include "ui/views/handles.h"
#include "ui/views/pianoroll.h"
#include "ui/views/timescale.h"

namespace {

// A mouse movement of dx pixels as whole quantize steps of ticks.
int32_t stepsOfTicks(const TimeScale& scale, double dx) {
  const double step = std::max(scale.quantize(), 1);
  return static_cast<int32_t>(std::lround(dx / scale.pixelsPerTick() / step) * step);
}

}  // namespace

// --- Select ----------------------------------------------------------------------

bool SelectTool::onRightEdge(int index, const QPoint& point) {
  const QRectF box = roll_.noteRect(index);
  return point.x() >= box.right() - kEdgeGrab && box.width() > 2 * kEdgeGrab;
}

Qt::CursorShape SelectTool::cursorAt(const QPoint& point) {
  if (roll_.handleAt(point).kind != PianoRoll::kNoHandle) return Qt::PointingHandCursor;
  const int index = roll_.noteAt(point);
  if (index < 0) return Qt::ArrowCursor;
  return onRightEdge(index, point) ? Qt::SizeHorCursor : Qt::SizeAllCursor;
}

void SelectTool::press(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  CNoteMan& notes = roll_.document()->notes();
  const QPoint point = event->position().toPoint();
  origin_ = point;
  pressed_ = roll_.noteAt(point);
  const Qt::KeyboardModifiers mods = event->modifiers();
  additive_ = (mods & Qt::ControlModifier) != 0;
  const PianoRoll::Handle handle = roll_.handleAt(point);
  if (handle.kind != PianoRoll::kNoHandle && mods == Qt::NoModifier) {
    handleKind_ = handle.kind;
    handleNote_ = handle.note;
    handlePoint_ = handle.point;
    startHandle(point);
    return;
  }
  if (pressed_ < 0) {
    if (!additive_ && (mods & Qt::ShiftModifier) == 0) notes.ReleaseAll();
    roll_.setCursorTick(std::max<int64_t>(0, roll_.timeScale()->snapDown(roll_.timeScale()->xToTick(point.x()))));
    mode_ = Mode::kBand;
    roll_.document()->touch();
    return;
  }
  if ((mods & Qt::ShiftModifier) != 0) {
    notes.addSelect(pressed_, 1);
  } else if (additive_) {
    notes.addSelect(pressed_, 2);
  } else if (!notes.isSelected(pressed_)) {
    notes.addSelect(pressed_, 0);
  }
  roll_.document()->touch();
  resizing_ = onRightEdge(pressed_, point);
  // A toggle that deselected the note starts no drag.
  mode_ = notes.isSelected(pressed_) ? Mode::kPending : Mode::kNone;
  if (mode_ == Mode::kPending) {
    heardNote_ = notes.getNote(pressed_)->NoteNum;
    emit roll_.auditionWanted(pressed_);
  }
}

void SelectTool::startDrag() {
  EditorDocument& document = *roll_.document();
  // A resize also stretches the pitch lines: the session keeps whole notes.
  document.beginEdit(resizing_ ? undo::kSet : undo::kMove);
  roll_.setHideSelectedCurves(true);
  const ctonm2& engine = document.engine();
  saved_.resize(static_cast<size_t>(engine.noteCount));
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    saved_[static_cast<size_t>(i)] = {engine.notes[i].Delta, engine.notes[i].NoteNum, engine.notes[i].Length};
  }
  document.notes().synchronizeNotes();
  mode_ = resizing_ ? Mode::kResize : Mode::kMove;
}

void SelectTool::apply(const QPoint& point) {
  EditorDocument& document = *roll_.document();
  const TimeScale& scale = *roll_.timeScale();
  const int32_t dTicks = stepsOfTicks(scale, point.x() - origin_.x());
  if (mode_ == Mode::kMove) {
    const int32_t dNote = scale.yToNote(point.y()) - scale.yToNote(origin_.y());
    document.notes().moveSelectedNotes(dTicks, dNote, scale.quantize());
  } else {
    document.notes().sizeSelectedNotes(dTicks, scale.quantize());
  }
  document.touch();
  // The held note is heard again at each new pitch it is dragged to.
  const NoteData* held = document.notes().getNote(pressed_);
  if (mode_ == Mode::kMove && held != nullptr && held->NoteNum != heardNote_) {
    heardNote_ = held->NoteNum;
    emit roll_.auditionWanted(pressed_);
  }
}

void SelectTool::move(QMouseEvent* event) {
  const QPoint point = event->position().toPoint();
  if (mode_ == Mode::kBand) {
    roll_.setRubberBand(QRect(origin_, point).normalized());
    return;
  }
  if (mode_ == Mode::kHandle) {
    applyHandle(point);
    return;
  }
  if (mode_ == Mode::kPending && (point - origin_).manhattanLength() >= 3) startDrag();
  if (mode_ == Mode::kMove || mode_ == Mode::kResize) apply(point);
}

void SelectTool::release(QMouseEvent* event) {
  EditorDocument& document = *roll_.document();
  if (mode_ == Mode::kBand) {
    const QRect band = QRect(origin_, event->position().toPoint()).normalized();
    roll_.setRubberBand(QRect());
    if (band.width() > 2 || band.height() > 2) {
      CNoteMan& notes = document.notes();
      const int32_t count = document.engine().noteCount;
      for (int32_t i = 0; i < count; ++i) {
        if (ctonm2::is_r(document.engine().notes[i].Lyric)) continue;
        if (roll_.noteRect(i).intersects(band) && !notes.isSelected(i)) notes.addSelect(i, 2);
      }
      document.touch();
    }
  } else if (mode_ == Mode::kMove) {
    apply(event->position().toPoint());
    document.model().normalizeAll();
    document.notes().synchronizeNotes();
    document.endEdit(undo::kMove);
  } else if (mode_ == Mode::kResize) {
    apply(event->position().toPoint());
    for (int32_t i = 0; i < document.engine().noteCount; ++i) {
      if (document.notes().isSelected(i)) document.notes().stretchPitchLen(i);
    }
    document.notes().synchronizeNotes();
    document.endEdit(undo::kSet);
  } else if (mode_ == Mode::kHandle) {
    applyHandle(event->position().toPoint());
    document.endNoteEdit(handleNote_, handleKind_ == PianoRoll::kPitchPoint ? undo::kPitch : undo::kVibrato);
  }
  roll_.setHideSelectedCurves(false);
  mode_ = Mode::kNone;
}

void SelectTool::cancel() {
  EditorDocument& document = *roll_.document();
  ctonm2& engine = document.engine();
  for (int32_t i = 0; i < engine.noteCount && static_cast<size_t>(i) < saved_.size(); ++i) {
    const Saved& s = saved_[static_cast<size_t>(i)];
    engine.notes[i].Delta = s.delta;
    engine.notes[i].NoteNum = s.noteNum;
    engine.notes[i].Length = s.length;
  }
  document.notes().synchronizeNotes();
  // Nothing changed: the session records no step.
  document.endEdit(mode_ == Mode::kResize ? undo::kSet : undo::kMove);
  roll_.setHideSelectedCurves(false);
}

bool SelectTool::key(QKeyEvent* event) {
  if (event->key() != Qt::Key_Escape) return false;
  if (mode_ == Mode::kMove || mode_ == Mode::kResize) {
    cancel();
  } else if (mode_ == Mode::kHandle) {
    restoreHandle();
    roll_.document()->endNoteEdit(handleNote_, handleKind_ == PianoRoll::kPitchPoint ? undo::kPitch : undo::kVibrato);
  } else if (mode_ == Mode::kBand) {
    roll_.setRubberBand(QRect());
  } else {
    return false;
  }
  mode_ = Mode::kNone;
  return true;
}

// --- Expression handles ----------------------------------------------------------

namespace {

std::vector<float> copyList(const float* list) {
  return list != nullptr ? std::vector<float>(list, list + floatListCount(list) + 1) : std::vector<float>();
}

// Makes a count-first list hold at least `count` values (new ones 0).
bool growList(float** list, int32_t count) {
  const int32_t old = floatListCount(*list);
  if (old >= count) return true;
  auto* grown = static_cast<float*>(realloc(*list, sizeof(float) * static_cast<size_t>(count + 1)));
  if (grown == nullptr) return false;
  for (int32_t k = old + 1; k <= count; ++k) grown[k] = 0.0f;
  grown[0] = static_cast<float>(count);
  *list = grown;
  return true;
}

}  // namespace

void SelectTool::startHandle(const QPoint&) {
  EditorDocument& document = *roll_.document();
  const bool pitch = handleKind_ == PianoRoll::kPitchPoint;
  document.beginNoteEdit(handleNote_, pitch ? undo::kPitch : undo::kVibrato);
  const NoteData* note = document.notes().getNote(handleNote_);
  pbs_ = copyList(note->PBS);
  pbw_ = copyList(note->PBW);
  pby_ = copyList(note->PBY);
  memcpy(vbr_, note->VBR, sizeof vbr_);
  mode_ = Mode::kHandle;
}

void SelectTool::restoreHandle() {
  NoteData* note = roll_.document()->notes().getNote(handleNote_);
  if (note == nullptr) return;
  auto put = [](float* list, const std::vector<float>& saved) {
    if (list == nullptr || saved.empty()) return;
    const size_t n = std::min<size_t>(saved.size(), static_cast<size_t>(floatListCount(list)) + 1);
    std::copy(saved.begin() + 1, saved.begin() + static_cast<long>(n), list + 1);
  };
  put(note->PBS, pbs_);
  put(note->PBW, pbw_);
  put(note->PBY, pby_);
  memcpy(note->VBR, vbr_, sizeof vbr_);
}

void SelectTool::applyHandle(const QPoint& point) {
  EditorDocument& document = *roll_.document();
  ctonm2& engine = document.engine();
  NoteData* note = document.notes().getNote(handleNote_);
  if (note == nullptr) return;
  restoreHandle();
  const TimeScale& scale = *roll_.timeScale();
  const double ppm = pixelsPerMs(*roll_.document(), handleNote_, scale);
  const double dMs = (point.x() - origin_.x()) / ppm;
  const double dCents = -(point.y() - origin_.y()) * 100.0 / scale.rowHeight();
  const QRectF box = roll_.noteRect(handleNote_);
  if (handleKind_ == PianoRoll::kPitchPoint) {
    // A point moves in time between its neighbours (the points after it stay
    // where they are) and, where it has a height of its own, in height.
    const int n = floatListCount(note->PBW);
    const int k = handlePoint_;
    if (k == 0) {
      const double dt = n >= 1 ? std::min(dMs, static_cast<double>(pbw_[1])) : dMs;
      note->PBS[1] = static_cast<float>(pbs_[1] + dt);
      if (n >= 1) note->PBW[1] = static_cast<float>(pbw_[1] - dt);
      if (floatListCount(note->PBS) >= 2 && engine.getprenote(handleNote_, note->layer) < 0) {
        note->PBS[2] = static_cast<float>(std::lround((pbs_[2] * 10.0 + dCents)) / 10.0);
      }
    } else if (k <= n) {
      const double low = -pbw_[static_cast<size_t>(k)];
      const double high = k < n ? pbw_[static_cast<size_t>(k + 1)] : 1e9;
      const double dt = std::clamp(dMs, low, high);
      note->PBW[k] = static_cast<float>(pbw_[static_cast<size_t>(k)] + dt);
      if (k < n) {
        note->PBW[k + 1] = static_cast<float>(pbw_[static_cast<size_t>(k + 1)] - dt);
        if (growList(&note->PBY, k)) {
          const float old = static_cast<size_t>(k) < pby_.size() ? pby_[static_cast<size_t>(k)] : 0.0f;
          note->PBY[k] = static_cast<float>(std::lround(old * 10.0 + dCents) / 10.0);
        }
      }
    }
  } else {
    const double noteWidth = std::max(1.0, box.width());
    const double vibratoWidth = noteWidth * std::min<int>(vbr_[0], 100) / 100.0;
    const double x = point.x();
    switch (handleKind_) {
      case PianoRoll::kVibratoLength:
        note->VBR[0] =
            static_cast<int16_t>(std::clamp<long>(std::lround((box.right() - x) / noteWidth * 100.0), 1, 100));
        break;
      case PianoRoll::kVibratoDepth:
        note->VBR[2] = static_cast<int16_t>(std::clamp<long>(std::lround(vbr_[2] + dCents), 0, 2000));
        break;
      case PianoRoll::kVibratoFadeIn:
        note->VBR[3] = static_cast<int16_t>(std::clamp<long>(
            std::lround((x - (box.right() - vibratoWidth)) / std::max(1.0, vibratoWidth) * 100.0), 0, 100));
        break;
      case PianoRoll::kVibratoFadeOut:
        note->VBR[4] = static_cast<int16_t>(
            std::clamp<long>(std::lround((box.right() - x) / std::max(1.0, vibratoWidth) * 100.0), 0, 100));
        break;
      default:
        break;
    }
  }
  // The curve follows the hand: this note and its neighbours are rebuilt.
  const int first = std::max(0, engine.getprenote(handleNote_, note->layer));
  const int next = engine.getnextnote(handleNote_, note->layer);
  engine.makePitchMode2(first, next >= 0 ? next : handleNote_);
  document.touch();
}

// --- Pen -------------------------------------------------------------------------

void PenTool::press(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  EditorDocument& document = *roll_.document();
  const TimeScale& scale = *roll_.timeScale();
  const QPoint point = event->position().toPoint();
  start_ = std::max<int64_t>(0, scale.snapDown(scale.xToTick(point.x())));
  const int note =
      std::clamp(scale.yToNote(point.y()), static_cast<int>(CNoteMan::kMinNote), static_cast<int>(CNoteMan::kMaxNote));
  const int32_t length = std::clamp(document.model().notelength(), CNoteMan::kMinLength, CNoteMan::kMaxLength);
  // A note already there is chosen, not buried under a new one.
  const int32_t layer = document.engine().currentLayer >= 0 ? document.engine().currentLayer : 0;
  const int32_t there = document.noteAt(start_, note, layer);
  if (there >= 0) {
    document.notes().ReleaseAll();
    document.notes().addSelect(there, 0);
    document.touch();
    emit document.notice(PianoRoll::tr("A note is already there: it is selected instead"));
    return;
  }
  document.beginNoteEdit(-1, undo::kAdd);
  made_ = document.notes().insertNotePosition(start_, length, note, PianoRoll::kPenLyric);
  if (made_ >= 0) document.notes().addSelect(made_, 0);
  document.touch();
  if (made_ >= 0) emit roll_.auditionWanted(made_);
}

void PenTool::move(QMouseEvent* event) {
  if (made_ < 0) return;
  EditorDocument& document = *roll_.document();
  const TimeScale& scale = *roll_.timeScale();
  const int64_t end = scale.snapNearest(scale.xToTick(event->position().x()));
  NoteData* note = document.notes().getNote(made_);
  if (note == nullptr) return;
  const int64_t step = std::max(scale.quantize(), CNoteMan::kMinLength);
  const int64_t length = std::clamp<int64_t>(end - start_, step, CNoteMan::kMaxLength);
  if (length == note->Length) return;
  note->Length = static_cast<int32_t>(length);
  document.touch();
}

void PenTool::release(QMouseEvent*) {
  if (made_ < 0) return;
  roll_.document()->endNoteEdit(made_, undo::kAdd);
  made_ = -1;
}

bool PenTool::key(QKeyEvent* event) {
  if (event->key() != Qt::Key_Escape || made_ < 0) return false;
  EditorDocument& document = *roll_.document();
  document.notes().deleteNote(made_);
  made_ = -1;
  document.endNoteEdit(-1, undo::kAdd);
  return true;
}

// --- Eraser ----------------------------------------------------------------------

void EraserTool::eraseAt(const QPoint& point) {
  const int index = roll_.noteAt(point);
  if (index < 0) return;
  EditorDocument& document = *roll_.document();
  document.beginNoteEdit(index, undo::kDelete);
  document.notes().deleteNote(index);
  document.endNoteEdit(index, undo::kDelete);
}

void EraserTool::press(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  down_ = true;
  eraseAt(event->position().toPoint());
}

void EraserTool::move(QMouseEvent* event) {
  if (down_) eraseAt(event->position().toPoint());
}
