#include "ui/views/backinglane.h"

#include <QContextMenuEvent>
#include <QFileInfo>
#include <QInputDialog>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "engine/ctonm2.h"
#include "engine/ranges.h"
#include "ui/shell/document.h"
#include "ui/views/timescale.h"

BackingLane::BackingLane(EditorDocument* document, TimeScale* scale, QWidget* parent)
    : QWidget(parent), document_(document), scale_(scale) {
  setObjectName("backingLane");
  setFixedHeight(sizeHint().height());
  setCursor(Qt::SizeHorCursor);
  setToolTip(tr("The backing track: drag to move it against the song; right-click for volume and mute"));
  connect(scale_, &TimeScale::changed, this, qOverload<>(&QWidget::update));
  connect(document_, &EditorDocument::changed, this, &BackingLane::follow);
  follow();
}

void BackingLane::follow() {
  setVisible(!document_->backing().empty());
  update();
}

double BackingLane::msAt(double x) const {
  // Between two ticks the time runs on at the tempo of the first.
  const double tick = (x + scale_->scrollX()) / scale_->pixelsPerTick();
  const auto whole = static_cast<int64_t>(std::floor(tick));
  CNoteMan& notes = document_->notes();
  const double at = notes.Ticks2MSec(whole);
  return at + (tick - static_cast<double>(whole)) * (notes.Ticks2MSec(whole + 1) - at);
}

void BackingLane::paintEvent(QPaintEvent* event) {
  QPainter p(this);
  const BackingTrack& track = document_->backing();
  p.fillRect(rect(), QColor(236, 238, 244));
  if (track.empty()) return;
  const int middle = height() / 2;
  const double half = height() / 2.0 - 3.0;
  p.setPen(track.muted ? QColor(170, 172, 180) : QColor(70, 110, 170));
  // One column at a time: the samples under it, lowest to highest. The
  // tempo map is read once for the columns drawn.
  const TickTimeline timeline(document_->engine());
  const QRect area = event->rect();
  auto msOf = [&](int x) {
    const double tick = (x + scale_->scrollX()) / scale_->pixelsPerTick();
    const auto whole = static_cast<int64_t>(std::floor(tick));
    const double at = timeline.msec(whole);
    return at + (tick - static_cast<double>(whole)) * (timeline.msec(whole + 1) - at);
  };
  double from = msOf(area.left());
  for (int x = area.left(); x <= area.right(); ++x) {
    const double to = msOf(x + 1);
    float low = 0.0f, high = 0.0f;
    track.range(std::llround((from - track.offsetMs) * 44.1), std::llround((to - track.offsetMs) * 44.1), &low,
                &high);
    from = to;
    if (low == 0.0f && high == 0.0f) continue;
    const int top = middle - static_cast<int>(std::lround(high * half));
    const int bottom = middle - static_cast<int>(std::lround(low * half));
    p.drawLine(x, top, x, std::max(top, bottom));
  }
  p.setPen(QColor(90, 94, 104));
  QString label = QFileInfo(QString::fromStdString(track.path())).fileName();
  label += track.muted ? tr("  (muted)") : QString("  %1 %").arg(track.volume);
  p.drawText(rect().adjusted(6, 2, -6, -2), Qt::AlignLeft | Qt::AlignTop, label);
  p.setPen(QColor(200, 203, 212));
  p.drawLine(0, height() - 1, width(), height() - 1);
}

void BackingLane::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton || document_->backing().empty()) return;
  dragging_ = true;
  pressMs_ = msAt(event->position().x());
  pressOffset_ = document_->backing().offsetMs;
}

void BackingLane::mouseMoveEvent(QMouseEvent* event) {
  if (!dragging_) return;
  document_->previewBackingOffset(pressOffset_ + msAt(event->position().x()) - pressMs_);
}

void BackingLane::mouseReleaseEvent(QMouseEvent* event) {
  if (!dragging_ || event->button() != Qt::LeftButton) return;
  dragging_ = false;
  const double offset = pressOffset_ + msAt(event->position().x()) - pressMs_;
  if (std::fabs(offset - pressOffset_) < 0.05) {
    document_->previewBackingOffset(pressOffset_);  // a click moves nothing
    return;
  }
  // Whole msec: what the project keeps is to a tenth, and a hand is no finer.
  document_->setBackingOffset(std::round(offset));
}

void BackingLane::contextMenuEvent(QContextMenuEvent* event) {
  const BackingTrack& track = document_->backing();
  if (track.empty()) return;
  QMenu menu(this);
  QAction* mute = menu.addAction(tr("&Mute"));
  mute->setCheckable(true);
  mute->setChecked(track.muted);
  connect(mute, &QAction::toggled, this, [this](bool on) { document_->setBackingMuted(on); });
  menu.addAction(tr("&Volume…"), this, [this] {
    bool ok = false;
    const int volume = QInputDialog::getInt(this, tr("Backing Track Volume"), tr("Volume (%):"),
                                            document_->backing().volume, static_cast<int>(ranges::kBackingVolume.low),
                                            static_cast<int>(ranges::kBackingVolume.high), 5, &ok);
    if (ok) document_->setBackingVolume(volume);
  });
  menu.addAction(tr("&Offset…"), this, [this] {
    bool ok = false;
    const double offset =
        QInputDialog::getDouble(this, tr("Backing Track Offset"), tr("Starts at (msec of the song):"),
                                document_->backing().offsetMs, ranges::kBackingOffset.low,
                                ranges::kBackingOffset.high, 1, &ok);
    if (ok) document_->setBackingOffset(offset);
  });
  menu.addSeparator();
  menu.addAction(tr("&Remove Backing Track"), this, [this] { document_->removeBackingTrack(); });
  menu.exec(event->globalPos());
}
