#include "ui/views/rulers.h"

#include <QMouseEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

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
