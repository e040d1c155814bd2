#include "ui/views/beats.h"

#include "editing/scaleman.h"

void forEachBeat(CScaleMan& scale, int64_t from, int64_t to,
                 const std::function<void(int64_t tick, bool measure, int number)>& visit) {
  if (from <= 0 && to > 0) visit(0, true, 1);
  int32_t entry = 0;
  scale.initBoundary(480, &entry);
  int64_t previous = 0;
  for (;;) {
    int32_t beat = 0, measure = 0, moved = -1;
    const int64_t tick = scale.nextBoundary(&beat, &measure, &moved);
    if (tick >= to || tick <= previous) break;  // past the view, or a walk that cannot advance
    previous = tick;
    if (tick >= from) visit(tick, beat == 0, measure + 1);
  }
}
