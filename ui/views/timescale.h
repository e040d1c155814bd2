// TimeScale: the one mapping between the song and the screen that the
// roll, the ruler, the keyboard and the lower panes share.
//
// Horizontally: ticks (480 per quarter note) to pixels at `pixelsPerTick`,
// less the horizontal scroll. Vertically: one row of `rowHeight` pixels
// per note number, 127 at the top, less the vertical scroll. Snapping
// rounds to the quantize step.
#pragma once

#include <QObject>
#include <cstdint>

class TimeScale : public QObject {
  Q_OBJECT

 public:
  static constexpr int kTicksPerQuarter = 480;
  static constexpr int kNotes = 128;  // rows 0..127
  static constexpr double kMinPixelsPerTick = 0.01;
  static constexpr double kMaxPixelsPerTick = 1.0;
  static constexpr int kMinRowHeight = 6;
  static constexpr int kMaxRowHeight = 40;

  double pixelsPerTick() const { return pixelsPerTick_; }
  int rowHeight() const { return rowHeight_; }
  int scrollX() const { return scrollX_; }
  int scrollY() const { return scrollY_; }
  int quantize() const { return quantize_; }

  // Screen position of a tick and back (the tick under x, rounded down).
  double tickToX(double tick) const { return tick * pixelsPerTick_ - scrollX_; }
  int64_t xToTick(double x) const;
  // Top of the row of note `note`, and the note whose row holds y.
  int noteToY(int note) const { return (kNotes - 1 - note) * rowHeight_ - scrollY_; }
  int yToNote(double y) const;
  // The grid line at or before the tick, and the nearest one.
  int64_t snapDown(int64_t tick) const;
  int64_t snapNearest(int64_t tick) const;

  int contentHeight() const { return kNotes * rowHeight_; }

  void setScrollX(int x);
  void setScrollY(int y);
  void setQuantize(int ticks);
  // Zooms keeping the tick (or note) under the screen position `anchor`
  // where it is; factors are clamped to the allowed range.
  void zoomHorizontal(double factor, double anchorX);
  void zoomVertical(double factor, double anchorY);
  void setPixelsPerTick(double value);
  void setRowHeight(int value);

 signals:
  // Anything above changed: views repaint, scroll bars follow.
  void changed();

 private:
  double pixelsPerTick_ = 0.12;  // a quarter note is 58 pixels
  int rowHeight_ = 14;
  int scrollX_ = 0;
  int scrollY_ = 0;
  int quantize_ = 120;
};
