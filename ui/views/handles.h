// Where a note's expression is drawn and grabbed: the points of its mode-2
// pitch line, its vibrato box and its envelope points, in the note's own
// time (msec from its start) and, for the screen, in pixels.
#pragma once

#include <QPointF>
#include <QRectF>
#include <cstdint>
#include <vector>

#include "engine/ctonm2.h"

class EditorDocument;
class TimeScale;

// A point of a curve: msec from the note's start, and its value (cents
// about the note for a pitch line, percent for an envelope).
struct CurvePoint {
  double ms;
  double value;
};

// The start point and the end of every segment of the note's pitch line
// (empty without PBS and PBW). The start height is the previous sounding
// note's pitch, or PBS's height after a rest; the last point is at the
// note's own pitch.
std::vector<CurvePoint> pitchPoints(ctonm2& engine, int32_t index);

// The envelope as drawn over a note of lenMs: the start at 0, the points
// that can be dragged, the end at 0. Each draggable point says which
// duration slot (p) and level slot (v) it moves; `fromEnd` points are
// placed from the note's end (p3, p4).
struct EnvelopePoint {
  double ms;
  double level;
  int pSlot;  // -1: the fixed start and end
  int vSlot;
  bool fromEnd;
};
std::vector<EnvelopePoint> envelopePoints(const float* env, double lenMs);

// The note's length in msec at the tempo in force at it, and its pixels per
// msec on the scale.
double noteLengthMs(EditorDocument& document, int32_t index);
double pixelsPerMs(EditorDocument& document, int32_t index, const TimeScale& scale);

// The vibrato box of a note on screen (an empty rectangle when it has
// none): its horizontal span is the vibrato's length at the note's end,
// its height twice the depth. The three handles: length (left edge),
// depth (top edge), fade-in and fade-out (on the top edge where the fades
// end).
struct VibratoBox {
  QRectF box;
  QPointF length;
  QPointF depth;
  QPointF fadeIn;
  QPointF fadeOut;
};
VibratoBox vibratoBox(ctonm2& engine, int32_t index, const QRectF& noteBox, const TimeScale& scale);
