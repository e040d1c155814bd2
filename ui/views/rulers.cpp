#include "ui/views/rulers.h"

#include <QComboBox>
#include <QContextMenuEvent>
#include <QFormLayout>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QSpinBox>
#include <algorithm>
#include <cmath>

#include "editing/undoman.h"
#include "ui/shell/dialogbuttons.h"
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

  // Where time signatures start: a tempo mark there stands after the signature.
  std::vector<int64_t> signatureTicks;
  {
    const CScaleMan& signatures = document_->scale();
    int startMeasure = 0;
    for (int k = 0; k < signatures.count(); ++k) {
      signatureTicks.push_back(measureStart(startMeasure));
      if (signatures.entries()[k].measures <= 0) break;
      startMeasure += signatures.entries()[k].measures;
    }
  }
  auto tempoX = [&](int64_t tick) {
    const bool shared = std::find(signatureTicks.begin(), signatureTicks.end(), tick) != signatureTicks.end();
    return scale_->tickToX(static_cast<double>(tick)) + (shared ? 40 : 3);
  };
  // The song's tempo at bar 1, then each change on the note that carries it.
  const ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  p.setPen(QColor(120, 60, 20));
  bool changeAtStart = false;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].Tempo <= 0.0f) continue;
    const int64_t start = starts[static_cast<size_t>(i)];
    changeAtStart = changeAtStart || start == 0;
    const double x = tempoX(start);
    if (x < -60 || x > w) continue;
    p.drawText(QPointF(x, 26), QString("♩=%1").arg(static_cast<double>(engine.notes[i].Tempo)));
  }
  if (!changeAtStart) p.drawText(QPointF(tempoX(0), 26), QString("♩=%1").arg(static_cast<double>(engine.tempo)));

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

int64_t Ruler::menuTick(int x) { return std::max<int64_t>(0, scale_->snapNearest(scale_->xToTick(x))); }

void Ruler::setTempoAt(int64_t tick, float tempo) {
  emit document_->editStarting();
  document_->model().setTempoAt(tick, tempo);
  document_->touch();
}

void Ruler::signatureAt(int measure, int* beats, int* note) {
  const CScaleMan& signatures = document_->scale();
  int start = 0;
  *beats = 4;
  *note = 4;
  for (int k = 0; k < signatures.count() && start <= measure; ++k) {
    *beats = signatures.getBeat(k);
    *note = signatures.getNote(k);
    if (signatures.entries()[k].measures <= 0) break;
    start += signatures.entries()[k].measures;
  }
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
  const int64_t tick = menuTick(event->pos().x());
  const int measure = measureAt(tick);
  QMenu menu(this);
  // A tempo change where the menu was opened, starting from the tempo in force.
  const QString where = QString::number(measure + 1);
  menu.addAction(tr("Set &Tempo Here (Measure %1)…").arg(where), this, [this, tick] {
    bool ok = false;
    const double tempo = QInputDialog::getDouble(this, tr("Tempo"), tr("Quarter notes per minute:"),
                                                 document_->model().tempoAt(tick), 10.0, 512.0, 2, &ok);
    if (ok) setTempoAt(tick, static_cast<float>(tempo));
  });
  bool changeHere = false;
  const ctonm2& engine = document_->engine();
  const std::vector<int64_t>& starts = document_->starts();
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    changeHere = changeHere || (engine.notes[i].Tempo > 0.0f && starts[static_cast<size_t>(i)] == tick);
  }
  QAction* remove = menu.addAction(tr("&Remove Tempo Change Here"), this, [this, tick] { setTempoAt(tick, 0.0f); });
  remove->setEnabled(changeHere);
  menu.addSeparator();
  menu.addAction(tr("Time &Signature at Measure %1…").arg(measure + 1), this, [this, measure] {
    int beats = 4, note = 4;
    signatureAt(measure, &beats, &note);
    TimeSignatureDialog dialog(measure, beats, note, this);
    if (dialog.exec() != QDialog::Accepted) return;
    if (dialog.beats() != beats || dialog.note() != note) setTimeSignature(measure, dialog.beats(), dialog.note());
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

TimeSignatureDialog::TimeSignatureDialog(int measure, int beats, int note, QWidget* parent) : QDialog(parent) {
  setWindowTitle(tr("Time Signature"));
  auto* form = new QFormLayout(this);
  form->addRow(new QLabel(tr("From measure %1 on:").arg(measure + 1), this));
  beats_ = new QSpinBox(this);
  beats_->setObjectName("signatureBeats");
  beats_->setRange(1, 32);
  beats_->setValue(beats);
  unit_ = new QComboBox(this);
  unit_->setObjectName("signatureUnit");
  for (int value : {1, 2, 4, 8, 16, 32}) unit_->addItem(QString::number(value), value);
  unit_->setCurrentIndex(std::max(0, unit_->findData(note)));
  form->addRow(tr("Beats per measure:"), beats_);
  form->addRow(tr("Beat unit:"), unit_);
  form->addRow(dialogButtons(this));
}

int TimeSignatureDialog::beats() const { return beats_->value(); }
int TimeSignatureDialog::note() const { return unit_->currentData().toInt(); }
