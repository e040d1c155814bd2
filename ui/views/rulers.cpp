#include "ui/views/rulers.h"

#include <QContextMenuEvent>
#include <QInputDialog>
#include <QLineEdit>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "editing/undoman.h"
#include "ui/shell/document.h"
#include "ui/views/beats.h"
#include "ui/views/timescale.h"

Ruler::Ruler(EditorDocument* document, TimeScale* scale, QWidget* parent)
    : QWidget(parent), document_(document), scale_(scale) {
  setFixedHeight(34);
  setAttribute(Qt::WA_OpaquePaintEvent);
  connect(scale_, &TimeScale::changed, this, qOverload<>(&QWidget::update));
  connect(document_, &EditorDocument::changed, this, qOverload<>(&QWidget::update));
}

void Ruler::setPlayTick(int64_t tick) {
  if (tick == playTick_) return;
  playTick_ = tick;
  update();
}

void Ruler::setRenderedTicks(int64_t from, int64_t to) {
  if (from == renderedFrom_ && to == renderedTo_) return;
  renderedFrom_ = from;
  renderedTo_ = to;
  update();
}

void Ruler::setCursorTick(int64_t tick) {
  cursorTick_ = tick;
  update();
}

void Ruler::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const int w = width(), h = height();
  p.fillRect(rect(), QColor(242, 243, 247));
  p.setPen(QColor(180, 184, 194));
  p.drawLine(0, h - 1, w, h - 1);

  // The part of the song already rendered, as a band along the bottom.
  if (renderedFrom_ >= 0 && renderedTo_ > renderedFrom_) {
    const double x0 = scale_->tickToX(static_cast<double>(renderedFrom_));
    const double x1 = scale_->tickToX(static_cast<double>(renderedTo_));
    p.fillRect(QRectF(x0, h - 5, x1 - x0, 4), QColor(90, 180, 110));
  }

  const int64_t from = std::max<int64_t>(0, scale_->xToTick(0));
  const int64_t to = scale_->xToTick(w) + 1;
  QFont font = p.font();
  font.setPixelSize(11);
  p.setFont(font);
  // Measure numbers are skipped while they would crowd each other.
  const double measureWidth = 4 * 480 * scale_->pixelsPerTick();
  const int every = measureWidth >= 28 ? 1 : static_cast<int>(std::ceil(28 / std::max(measureWidth, 1.0)));
  forEachBeat(document_->scale(), from, to, [&](int64_t tick, bool measure, int number) {
    const double x = std::floor(scale_->tickToX(static_cast<double>(tick))) + 0.5;
    p.setPen(measure ? QColor(90, 94, 106) : QColor(170, 174, 186));
    p.drawLine(QPointF(x, measure ? 2 : h - 10), QPointF(x, h - 1));
    if (measure && (number - 1) % every == 0) {
      p.setPen(QColor(30, 30, 40));
      p.drawText(QPointF(x + 3, 13), QString::number(number));
    }
  });

  // Tempo changes, on the note that carries them.
  const ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  p.setPen(QColor(120, 60, 20));
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].Tempo <= 0.0f) continue;
    const double x = scale_->tickToX(static_cast<double>(starts[static_cast<size_t>(i)]));
    if (x < -60 || x > w) continue;
    p.drawText(QPointF(x + 3, 26), QString("♩=%1").arg(static_cast<double>(engine.notes[i].Tempo)));
  }

  // Time signatures at the measures where they start.
  CScaleMan& signatures = document_->scale();
  int startMeasure = 0;
  p.setPen(QColor(20, 90, 60));
  for (int k = 0; k < signatures.count(); ++k) {
    const double x = scale_->tickToX(static_cast<double>(measureStart(startMeasure)));
    if (x > -40 && x < w) {
      p.drawText(QPointF(x + 3 + (k == 0 ? 10 : 0), 26),
                 QString("%1/%2").arg(signatures.getBeat(k)).arg(signatures.getNote(k)));
    }
    const int32_t measures = signatures.entries()[k].measures;
    if (measures <= 0) break;
    startMeasure += measures;
  }

  const double cursorX = scale_->tickToX(static_cast<double>(cursorTick_));
  p.setPen(Qt::NoPen);
  p.setBrush(QColor(40, 40, 40));
  p.drawPolygon(QPolygonF({QPointF(cursorX - 5, h - 9), QPointF(cursorX + 5, h - 9), QPointF(cursorX, h - 1)}));
  if (playTick_ >= 0) {
    const double playX = scale_->tickToX(static_cast<double>(playTick_));
    p.setBrush(QColor(220, 30, 30));
    p.drawPolygon(QPolygonF({QPointF(playX - 6, 0), QPointF(playX + 6, 0), QPointF(playX, 10)}));
    p.setPen(QPen(QColor(220, 30, 30), 2));
    p.drawLine(QPointF(playX, 0), QPointF(playX, h));
  }
}

void Ruler::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  const int64_t tick = std::max<int64_t>(0, scale_->snapNearest(scale_->xToTick(event->position().x())));
  emit clicked(tick);
}

Keyboard::Keyboard(TimeScale* scale, QWidget* parent) : QWidget(parent), scale_(scale) {
  setFixedWidth(56);
  setAttribute(Qt::WA_OpaquePaintEvent);
  connect(scale_, &TimeScale::changed, this, qOverload<>(&QWidget::update));
}

void Keyboard::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const int w = width(), h = height();
  const int row = scale_->rowHeight();
  p.fillRect(rect(), QColor(60, 60, 66));
  QFont font = p.font();
  font.setPixelSize(std::clamp(row - 3, 7, 12));
  p.setFont(font);
  const int top = std::min(TimeScale::kNotes - 1, scale_->yToNote(0));
  const int bottom = std::max(0, scale_->yToNote(h));
  for (int n = top; n >= bottom; --n) {
    const int y = scale_->noteToY(n);
    const int k = n % 12;
    const bool black = k == 1 || k == 3 || k == 6 || k == 8 || k == 10;
    p.fillRect(0, y, w, row, black ? QColor(40, 40, 46) : QColor(252, 252, 252));
    if (black) p.fillRect(w - 16, y, 16, row, QColor(252, 252, 252));
    p.setPen(QColor(190, 190, 196));
    p.drawLine(0, y + row - 1, w, y + row - 1);
    if (k == 0) {
      p.setPen(QColor(40, 40, 46));
      p.drawText(QRect(2, y, w - 6, row), Qt::AlignVCenter | Qt::AlignRight, QString("C%1").arg(n / 12 - 1));
    }
  }
}

int Ruler::measureAt(int64_t tick) {
  int measure = 0;
  forEachBeat(document_->scale(), 0, tick + 1, [&](int64_t, bool isMeasure, int number) {
    if (isMeasure) measure = number - 1;
  });
  return measure;
}

int64_t Ruler::measureStart(int measure) {
  if (measure <= 0) return 0;
  int64_t found = -1;
  // Measures are at least a beat of a 1/32 long: a walk this far reaches it.
  const int64_t limit = (static_cast<int64_t>(measure) + 1) * 64 * 480;
  forEachBeat(document_->scale(), 0, limit, [&](int64_t tick, bool isMeasure, int number) {
    if (found < 0 && isMeasure && number - 1 == measure) found = tick;
  });
  return std::max<int64_t>(found, 0);
}

int Ruler::tempoNoteAt(int64_t tick) {
  const ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (starts[static_cast<size_t>(i)] >= tick && !ctonm2::is_r(engine.notes[i].Lyric)) return i;
  }
  return engine.noteCount - 1;
}

void Ruler::setTempoAt(int index, float tempo) {
  if (document_->notes().getNote(index) == nullptr) return;
  document_->beginNoteEdit(index, undo::kTempo);
  document_->notes().setTempo(index, tempo);
  document_->endNoteEdit(index, undo::kTempo);
}

void Ruler::setTimeSignature(int measure, int beats, int note) {
  document_->beginNoteEdit(0, undo::kTimeSignature);
  document_->scale().addTimeSignature(measure, beats, note);
  document_->endNoteEdit(0, undo::kTimeSignature);
}

void Ruler::removeTimeSignature(int measure) {
  document_->beginNoteEdit(0, undo::kTimeSignature);
  document_->scale().removeTimeSignature(measure);
  document_->endNoteEdit(0, undo::kTimeSignature);
}

void Ruler::contextMenuEvent(QContextMenuEvent* event) {
  const int64_t tick = std::max<int64_t>(0, scale_->xToTick(event->pos().x()));
  const int measure = measureAt(tick);
  const int note = tempoNoteAt(tick);
  QMenu menu(this);
  if (note >= 0) {
    const float current = document_->engine().notes[note].Tempo;
    menu.addAction(
        tr("Set &Tempo at \"%1\"…").arg(QString::fromUtf8(document_->engine().notes[note].Lyric)), this, [this, note] {
          bool ok = false;
          const double tempo = QInputDialog::getDouble(this, tr("Tempo"), tr("Quarter notes per minute:"),
                                                       document_->engine().get_tempo(note), 10.0, 512.0, 2, &ok);
          if (ok) setTempoAt(note, static_cast<float>(tempo));
        });
    QAction* remove = menu.addAction(tr("&Remove Tempo Change"), this, [this, note] { setTempoAt(note, 0.0f); });
    remove->setEnabled(current > 0.0f);
  }
  menu.addSeparator();
  menu.addAction(tr("Time &Signature at Measure %1…").arg(measure + 1), this, [this, measure] {
    bool ok = false;
    const QString text = QInputDialog::getText(this, tr("Time Signature"), tr("Beats/note (for example 3/4):"),
                                               QLineEdit::Normal, "3/4", &ok);
    if (!ok) return;
    const QStringList parts = text.split('/');
    const int beats = parts.value(0).trimmed().toInt();
    const int value = parts.value(1).trimmed().toInt();
    // The note value is a power of two a beat can be written in.
    if (beats < 1 || beats > 32 ||
        (value != 1 && value != 2 && value != 4 && value != 8 && value != 16 && value != 32)) {
      return;
    }
    setTimeSignature(measure, beats, value);
  });
  QAction* removeSignature = menu.addAction(tr("Remove Time Signature at Measure %1").arg(measure + 1), this,
                                            [this, measure] { removeTimeSignature(measure); });
  // Only a change that starts exactly at this measure can go (never the first).
  int start = 0;
  bool startsHere = false;
  const CScaleMan& signatures = document_->scale();
  for (int k = 0; k < signatures.count(); ++k) {
    if (k > 0 && start == measure) startsHere = true;
    if (signatures.entries()[k].measures <= 0) break;
    start += signatures.entries()[k].measures;
  }
  removeSignature->setEnabled(startsHere);
  menu.exec(event->globalPos());
}
