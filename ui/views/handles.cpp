#include "ui/views/handles.h"

#include "ui/shell/document.h"

#include <algorithm>

#include "ui/views/timescale.h"

std::vector<CurvePoint> pitchPoints(ctonm2& engine, int32_t index) {
  std::vector<CurvePoint> points;
  const NoteData* note = engine.get_note(index);
  if (note == nullptr || floatListCount(note->PBS) < 1 || floatListCount(note->PBW) < 1) return points;
  const int32_t prev = engine.getprenote(index, note->layer);
  double base = 0.0;
  if (prev >= 0) {
    base = (engine.notes[prev].NoteNum - note->NoteNum) * 100.0;
  } else if (floatListCount(note->PBS) == 2) {
    base = note->PBS[2] * 10.0;
  }
  double t = note->PBS[1];
  points.push_back({t, base});
  const int32_t n = floatListCount(note->PBW);
  const int32_t heights = floatListCount(note->PBY);
  for (int32_t k = 1; k <= n; ++k) {
    t += note->PBW[k];
    points.push_back({t, k <= heights && k < n ? note->PBY[k] * 10.0 : 0.0});
  }
  return points;
}

std::vector<EnvelopePoint> envelopePoints(const float* env, double lenMs) {
  std::vector<EnvelopePoint> points;
  points.push_back({0.0, 0.0, -1, -1, false});
  double t = env[0];
  points.push_back({t, env[3], 0, 3, false});
  t += env[1];
  points.push_back({t, env[4], 1, 4, false});
  t += env[9];
  points.push_back({t, env[10], 9, 10, false});
  if (env[11] != 0.0f) {
    t += env[12];
    points.push_back({t, env[13], 12, 13, false});
    t += env[14];
    points.push_back({t, env[15], 14, 15, false});
  }
  points.push_back({lenMs - env[8] - env[2], env[5], 2, 5, true});
  points.push_back({lenMs - env[8], env[6], 8, 6, true});
  points.push_back({lenMs, 0.0, -1, -1, true});
  return points;
}

double noteLengthMs(EditorDocument& document, int32_t index) {
  const NoteData* note = document.engine().get_note(index);
  return note != nullptr ? note->Length * 125.0 / document.tempoOf(index) : 0.0;
}

double pixelsPerMs(EditorDocument& document, int32_t index, const TimeScale& scale) {
  return document.tempoOf(index) / 125.0 * scale.pixelsPerTick();
}

VibratoBox vibratoBox(ctonm2& engine, int32_t index, const QRectF& noteBox, const TimeScale& scale) {
  VibratoBox v;
  const NoteData* note = engine.get_note(index);
  if (note == nullptr || note->VBR[0] <= 0) return v;
  const double width = noteBox.width() * std::min<int>(note->VBR[0], 100) / 100.0;
  const double depth = std::max(1.0, note->VBR[2] / 100.0 * scale.rowHeight());
  const double centre = noteBox.center().y();
  v.box = QRectF(noteBox.right() - width, centre - depth, width, 2 * depth);
  v.length = QPointF(v.box.left(), centre);
  v.depth = QPointF(v.box.center().x(), v.box.top());
  v.fadeIn = QPointF(v.box.left() + width * std::clamp<int>(note->VBR[3], 0, 100) / 100.0, v.box.top());
  v.fadeOut = QPointF(v.box.right() - width * std::clamp<int>(note->VBR[4], 0, 100) / 100.0, v.box.top());
  return v;
}
