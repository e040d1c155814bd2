#include "ui/views/rolleditor.h"

#include <QApplication>
#include <QComboBox>
#include <QGridLayout>
#include <QScrollBar>
#include <algorithm>

#include "ui/shell/document.h"
#include "ui/views/backinglane.h"
#include "ui/views/pianoroll.h"
#include "ui/views/rulers.h"
#include "ui/views/timescale.h"
#include "ui/views/valuepane.h"

RollEditor::RollEditor(EditorDocument* document, QWidget* parent)
    : QWidget(parent), document_(document), scale_(new TimeScale) {
  scale_->setParent(this);
  roll_ = new PianoRoll(document, scale_, this);
  ruler_ = new Ruler(document, scale_, this);
  keyboard_ = new Keyboard(scale_, this);
  backingLane_ = new BackingLane(document, scale_, this);
  valuePane_ = new ValuePane(document, scale_, this);
  valuePane_->setFixedHeight(110);
  paneMode_ = new QComboBox(this);
  paneMode_->setObjectName("paneMode");
  paneMode_->addItem(tr("Env"));
  paneMode_->addItem(tr("Int"));
  paneMode_->setToolTip(tr("The lane below the roll: envelope or intensity"));
  paneMode_->setFixedWidth(keyboard_->width());
  connect(paneMode_, &QComboBox::currentIndexChanged, this, [this](int mode) {
    valuePane_->setMode(mode == 0 ? ValuePane::Mode::kEnvelope : ValuePane::Mode::kIntensity);
  });
  horizontal_ = new QScrollBar(Qt::Horizontal, this);
  vertical_ = new QScrollBar(Qt::Vertical, this);

  auto* grid = new QGridLayout(this);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setSpacing(0);
  auto* corner = new QWidget(this);
  corner->setFixedSize(keyboard_->width(), ruler_->height());
  grid->addWidget(corner, 0, 0);
  grid->addWidget(ruler_, 0, 1);
  grid->addWidget(backingLane_, 1, 1);
  grid->addWidget(keyboard_, 2, 0);
  grid->addWidget(roll_, 2, 1);
  grid->addWidget(vertical_, 2, 2);
  grid->addWidget(paneMode_, 3, 0, Qt::AlignTop);
  grid->addWidget(valuePane_, 3, 1);
  grid->addWidget(horizontal_, 4, 1);

  connect(horizontal_, &QScrollBar::valueChanged, this, [this](int value) {
    if (!syncing_) scale_->setScrollX(value);
  });
  connect(vertical_, &QScrollBar::valueChanged, this, [this](int value) {
    if (!syncing_) scale_->setScrollY(value);
  });
  connect(scale_, &TimeScale::changed, this, &RollEditor::updateScrollBars);
  connect(document_, &EditorDocument::changed, this, &RollEditor::updateScrollBars);
  connect(roll_, &PianoRoll::wantScroll, this, [this](int dx, int dy) {
    horizontal_->setValue(horizontal_->value() + dx);
    vertical_->setValue(vertical_->value() + dy);
  });
  connect(roll_, &PianoRoll::cursorMoved, ruler_, &Ruler::setCursorTick);
  connect(ruler_, &Ruler::clicked, roll_, &PianoRoll::setCursorTick);

  // Middle C a little below the middle of a first view.
  scale_->setScrollY(std::max(0, scale_->noteToY(72)));
  updateScrollBars();
}

void RollEditor::updateScrollBars() {
  syncing_ = true;
  // The song (and its backing track) and four more measures.
  int64_t end = document_->lengthTicks();
  const BackingTrack& backing = document_->backing();
  if (!backing.empty()) end = std::max<int64_t>(end, document_->notes().MSec2Ticks(backing.offsetMs + backing.lengthMs()));
  const int64_t ticks = end + 4 * 4 * 480;
  const int contentWidth = static_cast<int>(std::min<double>(ticks * scale_->pixelsPerTick(), 1e9));
  horizontal_->setRange(0, std::max(0, contentWidth - roll_->width()));
  horizontal_->setPageStep(std::max(1, roll_->width()));
  horizontal_->setSingleStep(std::max(1, roll_->width() / 20));
  vertical_->setRange(0, std::max(0, scale_->contentHeight() - roll_->height()));
  vertical_->setPageStep(std::max(1, roll_->height()));
  vertical_->setSingleStep(scale_->rowHeight());
  horizontal_->setValue(scale_->scrollX());
  vertical_->setValue(scale_->scrollY());
  syncing_ = false;
  // The scroll bars clamp; the scale follows what they kept.
  if (horizontal_->value() != scale_->scrollX()) scale_->setScrollX(horizontal_->value());
  if (vertical_->value() != scale_->scrollY()) scale_->setScrollY(vertical_->value());
}

void RollEditor::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  updateScrollBars();
}

void RollEditor::showPlayback(int64_t tick, int singing, int64_t renderedFrom, int64_t renderedTo) {
  roll_->setPlayCursor(tick, singing);
  ruler_->setPlayTick(tick);
  ruler_->setRenderedTicks(renderedFrom, renderedTo);
  if (tick < 0 || follow_ == Follow::kOff) return;
  // Never while the user holds a mouse button: the view is theirs then.
  if (QApplication::mouseButtons() != Qt::NoButton || document_->editing()) return;
  const double x = scale_->tickToX(static_cast<double>(tick));
  const int w = roll_->width();
  if (follow_ == Follow::kContinuous) {
    horizontal_->setValue(static_cast<int>(x + scale_->scrollX() - w / 3));
  } else if (x > w - 10 || x < 0) {
    horizontal_->setValue(static_cast<int>(x + scale_->scrollX() - 10));
  }
}

RollEditor::SongRange RollEditor::songRange() const {
  const ctonm2& engine = document_->engine();
  SongRange range;
  int64_t start = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    start += engine.notes[i].Delta;
    if (ctonm2::is_r(engine.notes[i].Lyric)) continue;
    if (range.firstStart < 0) range.firstStart = start;
    range.low = std::min<int>(range.low, engine.notes[i].NoteNum);
    range.high = std::max<int>(range.high, engine.notes[i].NoteNum);
  }
  if (range.low > range.high) range = SongRange{60, 60, 0};
  return range;
}

void RollEditor::showRange(const SongRange& range, bool zoomToFit) {
  // Rows enough for the range and more than one on each side (once the
  // roll is shown: before, its height is not the one the user will see).
  const int rows = range.high - range.low + 4;
  if (roll_->isVisible() && (zoomToFit || rows * scale_->rowHeight() > roll_->height())) {
    scale_->zoomVertical(static_cast<double>(roll_->height()) / (rows * scale_->rowHeight()), 0.0);
  }
  const int middle =
      (scale_->noteToY(range.low) + scale_->noteToY(range.high) + scale_->rowHeight()) / 2 + scale_->scrollY();
  vertical_->setValue(middle - roll_->height() / 2);
}

void RollEditor::showSongStart() {
  const SongRange range = songRange();
  // The first note in view, a beat after the left edge when the song starts later.
  const double x = scale_->tickToX(static_cast<double>(range.firstStart)) + scale_->scrollX();
  horizontal_->setValue(range.firstStart > 480 ? static_cast<int>(x - 480 * scale_->pixelsPerTick()) : 0);
  showRange(range, false);
}

void RollEditor::fitSong() {
  // The song's end and a beat more across the roll's width.
  const double ticks = static_cast<double>(std::max<int64_t>(document_->notes().getAllTicks(), 1920)) + 480.0;
  scale_->zoomHorizontal(roll_->width() / ticks / scale_->pixelsPerTick(), 0.0);
  horizontal_->setValue(0);
  showRange(songRange(), true);
}

void RollEditor::zoomIn() { scale_->zoomHorizontal(1.25, roll_->width() / 2.0); }
void RollEditor::zoomOut() { scale_->zoomHorizontal(0.8, roll_->width() / 2.0); }
void RollEditor::zoomInVertical() { scale_->zoomVertical(1.25, roll_->height() / 2.0); }
void RollEditor::zoomOutVertical() { scale_->zoomVertical(0.8, roll_->height() / 2.0); }
