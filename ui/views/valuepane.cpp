#include "ui/views/valuepane.h"

#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>
#include <cstring>

#include "editing/undoman.h"
#include "ui/shell/document.h"
#include "ui/views/handles.h"
#include "ui/views/timescale.h"

namespace {

constexpr double kGrab = 5.0;
constexpr int kMargin = 6;  // pixels above the top level and below 0

}  // namespace

ValuePane::ValuePane(EditorDocument* document, TimeScale* scale, QWidget* parent)
    : QWidget(parent), document_(document), scale_(scale) {
  setAttribute(Qt::WA_OpaquePaintEvent);
  setFocusPolicy(Qt::ClickFocus);
  setMinimumHeight(60);
  connect(document_, &EditorDocument::changed, this, qOverload<>(&QWidget::update));
  connect(scale_, &TimeScale::changed, this, qOverload<>(&QWidget::update));
}

void ValuePane::setMode(Mode mode) {
  mode_ = mode;
  update();
}

double ValuePane::levelToY(double level) const {
  const double top = kMargin, bottom = height() - kMargin;
  const double full = mode_ == Mode::kEnvelope ? kMaxLevel : kMaxIntensity;
  return bottom - std::clamp(level, 0.0, full) / full * (bottom - top);
}

QPointF ValuePane::envelopePointPosition(int index, int point) {
  ctonm2& engine = document_->engine();
  const NoteData* note = engine.get_note(index);
  if (note == nullptr) return QPointF();
  const std::vector<EnvelopePoint> points = envelopePoints(note->Envelope, noteLengthMs(*document_, index));
  if (point < 0 || static_cast<size_t>(point) >= points.size()) return QPointF();
  const double x0 = scale_->tickToX(static_cast<double>(document_->starts()[static_cast<size_t>(index)]));
  return QPointF(x0 + points[static_cast<size_t>(point)].ms * pixelsPerMs(*document_, index, *scale_),
                 levelToY(points[static_cast<size_t>(point)].level));
}

QPointF ValuePane::intensityTop(int index) {
  const NoteData* note = document_->engine().get_note(index);
  if (note == nullptr) return QPointF();
  const double x0 = scale_->tickToX(static_cast<double>(document_->starts()[static_cast<size_t>(index)]));
  return QPointF(x0 + std::min(note->Length * scale_->pixelsPerTick(), 12.0) / 2.0, levelToY(note->Intensity));
}

int ValuePane::noteAtX(double x) {
  const ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  for (int32_t i = engine.noteCount - 1; i >= 0; --i) {
    if (ctonm2::is_r(engine.notes[i].Lyric)) continue;
    const double x0 = scale_->tickToX(static_cast<double>(starts[static_cast<size_t>(i)]));
    if (x >= x0 && x < x0 + engine.notes[i].Length * scale_->pixelsPerTick()) return i;
  }
  return -1;
}

void ValuePane::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const int w = width();
  p.fillRect(rect(), QColor(246, 247, 250));
  p.setPen(QColor(210, 214, 222));
  for (double level : {0.0, 100.0, mode_ == Mode::kEnvelope ? kMaxLevel : static_cast<double>(kMaxIntensity)}) {
    const int y = static_cast<int>(levelToY(level));
    p.drawLine(0, y, w, y);
  }
  p.setPen(QColor(120, 124, 136));
  p.drawText(QRect(4, 2, 200, 14), Qt::AlignLeft | Qt::AlignTop,
             mode_ == Mode::kEnvelope ? tr("Envelope") : tr("Intensity"));

  ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  p.setRenderHint(QPainter::Antialiasing, true);
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    if (ctonm2::is_r(note.Lyric)) continue;
    const double x0 = scale_->tickToX(static_cast<double>(starts[static_cast<size_t>(i)]));
    const double width = note.Length * scale_->pixelsPerTick();
    if (x0 > w || x0 + width < 0 || note.Length <= 0) continue;  // a note of no length has no envelope to show
    const QColor colour = note.selected != 0 ? QColor(225, 130, 40) : QColor(60, 110, 180);
    if (mode_ == Mode::kIntensity) {
      const double y = levelToY(note.Intensity);
      const double bar = std::min(width, 12.0);
      p.fillRect(QRectF(x0, y, bar, levelToY(0) - y), colour);
      continue;
    }
    const std::vector<EnvelopePoint> points = envelopePoints(note.Envelope, noteLengthMs(*document_, i));
    QPolygonF line;
    for (size_t k = 0; k < points.size(); ++k) line << envelopePointPosition(i, static_cast<int>(k));
    QPolygonF area = line;
    area << QPointF(line.last().x(), levelToY(0)) << QPointF(line.first().x(), levelToY(0));
    QColor fill = colour;
    fill.setAlpha(50);
    p.setPen(Qt::NoPen);
    p.setBrush(fill);
    p.drawPolygon(area);
    p.setPen(QPen(colour, 1.2));
    p.setBrush(Qt::NoBrush);
    p.drawPolyline(line);
    if (note.selected != 0) {
      p.setBrush(Qt::white);
      for (size_t k = 1; k + 1 < points.size(); ++k) p.drawEllipse(line[static_cast<int>(k)], 3.5, 3.5);
    }
  }
  p.setPen(QColor(180, 184, 194));
  p.drawLine(0, 0, w, 0);
}

void ValuePane::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  const QPointF at = event->position();
  origin_ = at;
  ctonm2& engine = document_->engine();
  CNoteMan& notes = document_->notes();
  dragNote_ = dragPoint_ = -1;
  if (mode_ == Mode::kEnvelope) {
    // The nearest point within reach.
    double best = 1e9;
    for (int32_t i = 0; i < engine.noteCount; ++i) {
      if (ctonm2::is_r(engine.notes[i].Lyric)) continue;
      const size_t count = envelopePoints(engine.notes[i].Envelope, noteLengthMs(*document_, i)).size();
      for (size_t k = 1; k + 1 < count; ++k) {
        const QPointF p = envelopePointPosition(i, static_cast<int>(k));
        const double distance = std::hypot(p.x() - at.x(), p.y() - at.y());
        if (std::abs(p.x() - at.x()) <= kGrab && std::abs(p.y() - at.y()) <= kGrab && distance < best) {
          best = distance;
          dragNote_ = i;
          dragPoint_ = static_cast<int>(k);
        }
      }
    }
    if (dragNote_ < 0) return;
    memcpy(savedEnvelope_, engine.notes[dragNote_].Envelope, sizeof savedEnvelope_);
    document_->beginNoteEdit(dragNote_, undo::kEnvelope);
  } else {
    dragNote_ = noteAtX(at.x());
    if (dragNote_ < 0) return;
    if (!notes.isSelected(dragNote_)) notes.addSelect(dragNote_, 0);
    savedIntensity_.resize(static_cast<size_t>(engine.noteCount));
    for (int32_t i = 0; i < engine.noteCount; ++i) savedIntensity_[static_cast<size_t>(i)] = engine.notes[i].Intensity;
    document_->beginEdit(undo::kIntensity);
  }
  applyDrag(at);
}

void ValuePane::applyDrag(const QPointF& point) {
  ctonm2& engine = document_->engine();
  NoteData* note = engine.get_note(dragNote_);
  if (note == nullptr) return;
  const double top = kMargin, bottom = height() - kMargin;
  if (mode_ == Mode::kIntensity) {
    // The bar's top follows the mouse; every selected note takes the same change.
    const double level = (bottom - point.y()) / (bottom - top) * kMaxIntensity;
    const int change = static_cast<int>(std::lround(level)) - savedIntensity_[static_cast<size_t>(dragNote_)];
    for (int32_t i = 0; i < engine.noteCount; ++i) {
      if (engine.notes[i].selected == 0) continue;
      engine.notes[i].Intensity = std::clamp(savedIntensity_[static_cast<size_t>(i)] + change, 0, kMaxIntensity);
    }
  } else {
    memcpy(note->Envelope, savedEnvelope_, sizeof savedEnvelope_);
    const std::vector<EnvelopePoint> points = envelopePoints(note->Envelope, noteLengthMs(*document_, dragNote_));
    const EnvelopePoint& held = points[static_cast<size_t>(dragPoint_)];
    const double dMs = (point.x() - origin_.x()) / pixelsPerMs(*document_, dragNote_, *scale_);
    // Points counted from the start lengthen their own step; points counted
    // from the end shorten theirs when moved right.
    const double duration = savedEnvelope_[held.pSlot] + (held.fromEnd ? -dMs : dMs);
    note->Envelope[held.pSlot] = static_cast<float>(std::max(0.0, std::round(duration * 10.0) / 10.0));
    const double level = (bottom - point.y()) / (bottom - top) * kMaxLevel;
    note->Envelope[held.vSlot] = static_cast<float>(std::clamp(std::round(level), 0.0, kMaxLevel));
  }
  document_->touch();
}

void ValuePane::mouseMoveEvent(QMouseEvent* event) {
  if (dragNote_ >= 0 && (event->buttons() & Qt::LeftButton) != 0) applyDrag(event->position());
}

void ValuePane::endDrag(bool keep) {
  if (dragNote_ < 0) return;
  ctonm2& engine = document_->engine();
  if (mode_ == Mode::kEnvelope) {
    if (!keep) memcpy(engine.notes[dragNote_].Envelope, savedEnvelope_, sizeof savedEnvelope_);
    document_->endNoteEdit(dragNote_, undo::kEnvelope);
  } else {
    if (!keep) {
      for (int32_t i = 0; i < engine.noteCount && static_cast<size_t>(i) < savedIntensity_.size(); ++i) {
        engine.notes[i].Intensity = savedIntensity_[static_cast<size_t>(i)];
      }
    }
    document_->endEdit(undo::kIntensity);
  }
  dragNote_ = -1;
}

void ValuePane::mouseReleaseEvent(QMouseEvent* event) {
  if (dragNote_ < 0) return;
  applyDrag(event->position());
  endDrag(true);
}

void ValuePane::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape && dragNote_ >= 0) {
    endDrag(false);
    return;
  }
  QWidget::keyPressEvent(event);
}

void ValuePane::contextMenuEvent(QContextMenuEvent* event) {
  const int index = noteAtX(event->pos().x());
  CNoteMan& notes = document_->notes();
  if (index >= 0 && !notes.isSelected(index)) {
    notes.addSelect(index, 0);
    document_->touch();
  }
  if (notes.getSelectCount() == 0) return;
  QMenu menu(this);
  auto onSelection = [this](uint32_t cmd, auto edit) {
    document_->beginEdit(cmd);
    edit();
    document_->endEdit(cmd);
  };
  menu.addAction(tr("&Default Envelope"), this,
                 [=] { onSelection(undo::kEnvelope, [this] { document_->notes().defaultEnvForSelected(); }); });
  menu.addAction(tr("&Correct Envelope"), this,
                 [=] { onSelection(undo::kEnvelope, [this] { document_->notes().correctEnvForSelected(); }); });
  menu.addAction(tr("&Equal Spacing"), this,
                 [=] { onSelection(undo::kEnvelope, [this] { document_->notes().equalSpaceEnvForSelected(); }); });
  QAction* extra = menu.addAction(tr("E&xtra Points"));
  extra->setCheckable(true);
  extra->setChecked(index >= 0 && notes.getNote(index)->Envelope[11] != 0.0f);
  connect(extra, &QAction::toggled, this,
          [=](bool on) { onSelection(undo::kEnvelope, [this, on] { document_->notes().switchEnvForSelected(on); }); });
  menu.addSeparator();
  menu.addAction(mode_ == Mode::kEnvelope ? tr("Show &Intensity") : tr("Show E&nvelope"), this,
                 [this] { setMode(mode_ == Mode::kEnvelope ? Mode::kIntensity : Mode::kEnvelope); });
  menu.exec(event->globalPos());
}
