#include "ui/views/timescale.h"

#include <algorithm>
#include <cmath>

int64_t TimeScale::xToTick(double x) const { return static_cast<int64_t>(std::floor((x + scrollX_) / pixelsPerTick_)); }

int TimeScale::yToNote(double y) const {
  const int row = static_cast<int>(std::floor((y + scrollY_) / rowHeight_));
  return std::clamp(kNotes - 1 - row, 0, kNotes - 1);
}

int64_t TimeScale::snapDown(int64_t tick) const {
  const int64_t step = std::max(quantize_, 1);
  const int64_t r = tick % step;
  return r < 0 ? tick - r - step : tick - r;
}

int64_t TimeScale::snapNearest(int64_t tick) const {
  const int64_t step = std::max(quantize_, 1);
  return snapDown(tick + step / 2);
}

void TimeScale::setScrollX(int x) {
  x = std::max(x, 0);
  if (x == scrollX_) return;
  scrollX_ = x;
  emit changed();
}

void TimeScale::setScrollY(int y) {
  y = std::max(y, 0);
  if (y == scrollY_) return;
  scrollY_ = y;
  emit changed();
}

void TimeScale::setQuantize(int ticks) {
  ticks = std::max(ticks, 1);
  if (ticks == quantize_) return;
  quantize_ = ticks;
  emit changed();
}

void TimeScale::setPixelsPerTick(double value) {
  value = std::clamp(value, kMinPixelsPerTick, kMaxPixelsPerTick);
  if (value == pixelsPerTick_) return;
  pixelsPerTick_ = value;
  emit changed();
}

void TimeScale::setRowHeight(int value) {
  value = std::clamp(value, kMinRowHeight, kMaxRowHeight);
  if (value == rowHeight_) return;
  rowHeight_ = value;
  emit changed();
}

void TimeScale::zoomHorizontal(double factor, double anchorX) {
  const double tick = (anchorX + scrollX_) / pixelsPerTick_;
  const double next = std::clamp(pixelsPerTick_ * factor, kMinPixelsPerTick, kMaxPixelsPerTick);
  if (next == pixelsPerTick_) return;
  pixelsPerTick_ = next;
  scrollX_ = std::max(0, static_cast<int>(std::lround(tick * next - anchorX)));
  emit changed();
}

void TimeScale::zoomVertical(double factor, double anchorY) {
  const double row = (anchorY + scrollY_) / rowHeight_;
  const int next = std::clamp(static_cast<int>(std::lround(rowHeight_ * factor)), kMinRowHeight, kMaxRowHeight);
  if (next == rowHeight_) return;
  rowHeight_ = next;
  scrollY_ = std::max(0, static_cast<int>(std::lround(row * next - anchorY)));
  emit changed();
}
