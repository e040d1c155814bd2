#include "ui/views/tools.h"

#include <QKeyEvent>
#include <QMouseEvent>

#include <algorithm>
#include <cmath>

#include "editing/undoman.h"
#include "ui/shell/document.h"
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
}

void SelectTool::startDrag() {
  EditorDocument& document = *roll_.document();
  document.beginEdit(resizing_ ? undo::kLength : undo::kMove);
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
}

void SelectTool::move(QMouseEvent* event) {
  const QPoint point = event->position().toPoint();
  if (mode_ == Mode::kBand) {
    roll_.setRubberBand(QRect(origin_, point).normalized());
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
    document.notes().synchronizeNotes();
    document.endEdit(undo::kLength);
  }
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
  document.endEdit(mode_ == Mode::kResize ? undo::kLength : undo::kMove);
}

bool SelectTool::key(QKeyEvent* event) {
  if (event->key() != Qt::Key_Escape) return false;
  if (mode_ == Mode::kMove || mode_ == Mode::kResize) {
    cancel();
  } else if (mode_ == Mode::kBand) {
    roll_.setRubberBand(QRect());
  } else {
    return false;
  }
  mode_ = Mode::kNone;
  return true;
}

// --- Pen -------------------------------------------------------------------------

void PenTool::press(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  EditorDocument& document = *roll_.document();
  const TimeScale& scale = *roll_.timeScale();
  const QPoint point = event->position().toPoint();
  start_ = std::max<int64_t>(0, scale.snapDown(scale.xToTick(point.x())));
  const int note = std::clamp(scale.yToNote(point.y()), static_cast<int>(CNoteMan::kMinNote),
                              static_cast<int>(CNoteMan::kMaxNote));
  const int32_t length = std::clamp(document.model().notelength(), CNoteMan::kMinLength, CNoteMan::kMaxLength);
  document.beginNoteEdit(-1, undo::kAdd);
  made_ = document.notes().insertNotePosition(start_, length, note, PianoRoll::kPenLyric);
  if (made_ >= 0) document.notes().addSelect(made_, 0);
  document.touch();
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
