#include "ui/views/pianoroll.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QFontMetrics>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>

#include "editing/undoman.h"
#include "ui/shell/document.h"
#include "ui/views/beats.h"
#include "ui/views/handles.h"
#include "ui/views/timescale.h"
#include "ui/views/tools.h"
#include "voicebank/voiceset.h"

const char* PianoRoll::kPenLyric = "あ";

namespace {

bool isBlackKey(int note) {
  const int k = note % 12;
  return k == 1 || k == 3 || k == 6 || k == 8 || k == 10;
}

const QColor kRowWhite(250, 250, 252);
const QColor kRowBlack(236, 238, 243);
const QColor kOctaveLine(200, 204, 214);
const QColor kGridLine(228, 230, 236);
const QColor kBeatLine(206, 210, 220);
const QColor kMeasureLine(150, 156, 170);
const QColor kNoteFill(104, 160, 220);
const QColor kNoteSelected(245, 166, 80);
const QColor kNoteBorder(52, 92, 150);
const QColor kPitchLine(200, 40, 60);
const QColor kStacked(230, 120, 0);  // the border of notes on one another
const QColor kPlayCursor(220, 30, 30);
const QColor kEditCursor(40, 40, 40);

// Why a note would not sing, or "" when it would.
QString silentReason(EditorDocument& document, const NoteData& note) {
  if (document.voiceEntryCount() == 0) return PianoRoll::tr("No voice bank is loaded");
  if (note.VoiceFile == nullptr) {
    return PianoRoll::tr("The voice bank has no entry for \"%1\"").arg(QString::fromUtf8(note.Lyric));
  }
  return QString();
}

QString noteName(int number) {
  static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  return QString("%1%2").arg(kNames[((number % 12) + 12) % 12]).arg(number / 12 - 1);
}

}  // namespace

PianoRoll::PianoRoll(EditorDocument* document, TimeScale* scale, QWidget* parent)
    : QWidget(parent), document_(document), scale_(scale) {
  setFocusPolicy(Qt::StrongFocus);
  setMouseTracking(true);
  setAttribute(Qt::WA_OpaquePaintEvent);
  setMinimumSize(200, 120);
  setTool(Tool::kSelect);
  connect(document_, &EditorDocument::changed, this, qOverload<>(&QWidget::update));
  connect(scale_, &TimeScale::changed, this, qOverload<>(&QWidget::update));
}

PianoRoll::~PianoRoll() = default;

void PianoRoll::setTool(Tool tool) {
  toolKind_ = tool;
  switch (tool) {
    case Tool::kSelect:
      tool_ = std::make_unique<SelectTool>(*this);
      break;
    case Tool::kPen:
      tool_ = std::make_unique<PenTool>(*this);
      break;
    case Tool::kEraser:
      tool_ = std::make_unique<EraserTool>(*this);
      break;
  }
  setCursor(tool_->cursorAt(QPoint(-1, -1)));
}

QRectF PianoRoll::noteRect(int index) {
  const std::vector<int64_t>& starts = document_->starts();
  const NoteData* note = document_->notes().getNote(index);
  if (note == nullptr || static_cast<size_t>(index) >= starts.size()) return QRectF();
  const double x = scale_->tickToX(static_cast<double>(starts[static_cast<size_t>(index)]));
  const double width = std::max(2.0, note->Length * scale_->pixelsPerTick());
  return QRectF(x, scale_->noteToY(note->NoteNum), width, scale_->rowHeight());
}

int PianoRoll::noteAt(const QPoint& point) {
  const ctonm2& engine = document_->engine();
  // The last drawn (topmost) box first.
  for (int32_t i = engine.noteCount - 1; i >= 0; --i) {
    if (ctonm2::is_r(engine.notes[i].Lyric)) continue;
    if (noteRect(i).contains(point)) return i;
  }
  return -1;
}

void PianoRoll::setPlayCursor(int64_t tick, int singing) {
  if (tick == playTick_ && singing == singing_) return;
  playTick_ = tick;
  singing_ = singing;
  update();
}

void PianoRoll::setCursorTick(int64_t tick) {
  cursorTick_ = std::max<int64_t>(tick, 0);
  emit cursorMoved(cursorTick_);
  update();
}

void PianoRoll::setRubberBand(const QRect& rect) {
  rubberBand_ = rect;
  update();
}

void PianoRoll::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const int w = width(), h = height();

  // Rows, darker for the black keys, a line under every C.
  const int row = scale_->rowHeight();
  const int top = std::min(TimeScale::kNotes - 1, scale_->yToNote(0));
  const int bottom = std::max(0, scale_->yToNote(h));
  for (int n = top; n >= bottom; --n) {
    const int y = scale_->noteToY(n);
    p.fillRect(0, y, w, row, isBlackKey(n) ? kRowBlack : kRowWhite);
    if (n % 12 == 0) {
      p.setPen(kOctaveLine);
      p.drawLine(0, y + row - 1, w, y + row - 1);
    }
  }
  const int below = scale_->noteToY(0) + row;
  if (below < h) p.fillRect(0, below, w, h - below, kRowBlack.darker(110));

  // Grid at the quantize step (when not too dense), beats and measures.
  const int64_t from = std::max<int64_t>(0, scale_->xToTick(0));
  const int64_t to = scale_->xToTick(w) + 1;
  const int step = std::max(scale_->quantize(), 1);
  if (step * scale_->pixelsPerTick() >= 5.0) {
    p.setPen(kGridLine);
    for (int64_t t = from - from % step; t <= to; t += step) {
      const int x = static_cast<int>(std::floor(scale_->tickToX(static_cast<double>(t))));
      p.drawLine(x, 0, x, h);
    }
  }
  forEachBeat(document_->scale(), from, to, [&](int64_t tick, bool measure, int) {
    const int x = static_cast<int>(std::floor(scale_->tickToX(static_cast<double>(tick))));
    p.setPen(measure ? kMeasureLine : kBeatLine);
    p.drawLine(x, 0, x, h);
  });

  // Notes: boxes, lyrics, vibrato spans and pitch curves.
  EditorDocument& document = *document_;
  if (!document.editing()) document.preparePitchCurves();
  const ctonm2& engine = document.engine();
  const std::vector<int64_t>& starts = document.starts();
  const QFont font = lyricFont();
  p.setFont(font);
  const QFontMetrics metrics(font);
  const bool dragging = document.editing();
  QRectF drawn;  // the last box drawn unselected
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    if (ctonm2::is_r(note.Lyric)) continue;
    const double x = scale_->tickToX(static_cast<double>(starts[static_cast<size_t>(i)]));
    const double width = std::max(2.0, note.Length * scale_->pixelsPerTick());
    if (x > w || x + width < 0) continue;
    const int y = scale_->noteToY(note.NoteNum);
    if (y > h || y + row < 0) continue;
    const QRectF box(x, y, width, row);
    // A note stacked exactly on the one just drawn would only hide behind
    // it (a song of 100,000 such notes took seconds to draw).
    if (box == drawn && note.selected == 0 && i != singing_) continue;
    drawn = note.selected == 0 ? box : QRectF();
    const bool silent = document.voiceEntryCount() == 0 || note.VoiceFile == nullptr;
    QColor fill = note.selected != 0 ? kNoteSelected : kNoteFill;
    if (silent && !dragging) fill.setAlpha(90);
    // Notes off the target layer stay in view, greyed.
    if (engine.currentLayer >= 0 && note.layer != engine.currentLayer) fill = QColor(190, 194, 204, 140);
    const bool onAnother = !dragging && document.stacked()[static_cast<size_t>(i)];
    p.setPen(i == singing_ ? QPen(kPlayCursor, 2) : onAnother ? QPen(kStacked, 2, Qt::DashLine) : QPen(kNoteBorder));
    p.setBrush(fill);
    p.drawRoundedRect(box.adjusted(0.5, 0.5, -0.5, -0.5), 2, 2);

    if (note.VBR[2] != 0 && note.VBR[0] > 0) {
      const double span = width * std::min<int>(note.VBR[0], 100) / 100.0;
      p.setPen(QPen(kNoteBorder, 1, Qt::DotLine));
      p.setBrush(Qt::NoBrush);
      p.drawRect(QRectF(x + width - span, y + 1, span - 1, row - 2));
    }
    // The rendered curve, in cents about the note, across the note's own
    // time (the tempo in force at the note throughout).
    const EditorDocument::Curve* curve =
        static_cast<size_t>(i) < document.curves().size() ? &document.curves()[static_cast<size_t>(i)] : nullptr;
    if (curve != nullptr && curve->cents.size() > 1 && !(hideSelectedCurves_ && note.selected != 0) &&
        curve->tempo > 0.0f) {
      const double lead = curve->lead;
      const double pixelsPerMs = curve->tempo / 125.0 * scale_->pixelsPerTick();
      const double centre = y + row / 2.0;
      QPainterPath path;
      bool started = false;
      // From the note's start, or earlier where its own line begins earlier
      // (the glide into the note).
      const double glide = floatListCount(note.PBS) >= 1 ? std::min(0.0, static_cast<double>(note.PBS[1])) : 0.0;
      const int32_t kFirst = std::max(0, static_cast<int32_t>(std::floor((lead + glide) / ctonm2::kPitchStepMs)));
      const int32_t count = static_cast<int32_t>(curve->cents.size());
      for (int32_t k = kFirst; k < count; ++k) {
        const double ms = k * ctonm2::kPitchStepMs - lead;  // from the note's start
        if (ms > curve->lengthMs) break;
        const QPointF point(x + ms * pixelsPerMs, centre - curve->cents[static_cast<size_t>(k)] / 100.0 * row);
        if (!started) {
          path.moveTo(point);
          started = true;
        } else {
          path.lineTo(point);
        }
      }
      p.setPen(QPen(kPitchLine, 1.2));
      p.setBrush(Qt::NoBrush);
      p.drawPath(path);
    }
    // The lyric last, over the curve, on a patch of its own so that the
    // line never crosses it. A lyric that does not fit is cut short with an
    // ellipsis, and left out where not even its first character fits, so
    // neighbours never overlap.
    QString lyric;
    const QRectF patch = lyricRect(i, metrics, &lyric);
    if (!patch.isEmpty()) {
      QColor under = fill;
      under.setAlpha(255);
      p.fillRect(patch, under.lighter(note.selected != 0 ? 115 : 135));
      p.setPen(silent ? QColor(60, 60, 60, 140) : QColor(20, 20, 30));
      p.drawText(patch.adjusted(1, 0, 0, 0), Qt::AlignVCenter | Qt::AlignLeft, lyric);
    }
  }

  paintHandles(p);

  // The edit cursor, the play cursor and the rubber band.
  const double cursorX = scale_->tickToX(static_cast<double>(cursorTick_));
  if (cursorX >= 0 && cursorX <= w) {
    p.setPen(QPen(kEditCursor, 1, Qt::DashLine));
    p.drawLine(QPointF(cursorX, 0), QPointF(cursorX, h));
  }
  if (playTick_ >= 0) {
    const double playX = scale_->tickToX(static_cast<double>(playTick_));
    p.setPen(QPen(kPlayCursor, 2));
    p.drawLine(QPointF(playX, 0), QPointF(playX, h));
  }
  if (!rubberBand_.isNull()) {
    p.setPen(QPen(QColor(60, 100, 200), 1));
    p.setBrush(QColor(60, 100, 200, 40));
    p.drawRect(rubberBand_);
  }
}

void PianoRoll::mousePressEvent(QMouseEvent* event) {
  setFocus();
  if (editingLyric()) commitLyric(false);
  tool_->press(event);
}

void PianoRoll::mouseMoveEvent(QMouseEvent* event) {
  if ((event->buttons() & Qt::LeftButton) != 0) {
    tool_->move(event);
    // Near an edge the view scrolls on.
    const QPoint point = event->position().toPoint();
    const int dx = point.x() < 0 ? point.x() : (point.x() > width() ? point.x() - width() : 0);
    const int dy = point.y() < 0 ? point.y() : (point.y() > height() ? point.y() - height() : 0);
    if (dx != 0 || dy != 0) emit wantScroll(dx, dy);
  } else {
    setCursor(tool_->cursorAt(event->position().toPoint()));
  }
}

void PianoRoll::mouseReleaseEvent(QMouseEvent* event) { tool_->release(event); }

void PianoRoll::mouseDoubleClickEvent(QMouseEvent* event) {
  const int index = noteAt(event->position().toPoint());
  if (index >= 0 && toolKind_ == Tool::kSelect) editLyric(index);
}

void PianoRoll::moveSelectionByKey(int dTicks, int dNote) {
  EditorDocument& document = *document_;
  if (document.notes().getSelectCount() == 0) return;
  document.beginEdit(undo::kMove);
  if (dNote != 0) {
    document.notes().addNoteNum(dNote, -1);
  } else {
    document.model().dragSelection(dTicks, 0, scale_->quantize());
  }
  document.endEdit(undo::kMove);
}

void PianoRoll::keyPressEvent(QKeyEvent* event) {
  if (tool_->key(event)) return;
  const int step = scale_->quantize();
  switch (event->key()) {
    case Qt::Key_Left:
      moveSelectionByKey(-step, 0);
      break;
    case Qt::Key_Right:
      moveSelectionByKey(step, 0);
      break;
    case Qt::Key_Up:
      moveSelectionByKey(0, 1);
      break;
    case Qt::Key_Down:
      moveSelectionByKey(0, -1);
      break;
    case Qt::Key_Return:
    case Qt::Key_Enter: {
      const int first = document_->notes().topOfSelection();
      if (first >= 0) editLyric(first);
      break;
    }
    default:
      QWidget::keyPressEvent(event);
  }
}

void PianoRoll::wheelEvent(QWheelEvent* event) {
  const QPoint delta = event->angleDelta();
  const int amount = delta.y() != 0 ? delta.y() : delta.x();
  if ((event->modifiers() & Qt::ControlModifier) != 0) {
    const double factor = std::pow(1.0015, amount);
    if ((event->modifiers() & Qt::ShiftModifier) != 0) {
      scale_->zoomVertical(factor, event->position().y());
    } else {
      scale_->zoomHorizontal(factor, event->position().x());
    }
  } else if ((event->modifiers() & Qt::ShiftModifier) != 0 || delta.x() != 0) {
    emit wantScroll(-amount / 2, 0);
  } else {
    emit wantScroll(0, -amount / 2);
  }
  event->accept();
}

bool PianoRoll::event(QEvent* event) {
  if (event->type() == QEvent::ToolTip) {
    auto* help = static_cast<QHelpEvent*>(event);
    const int index = noteAt(help->pos());
    if (index < 0) {
      QToolTip::hideText();
      return true;
    }
    const NoteData& note = *document_->notes().getNote(index);
    QString text =
        QString("%1  %2  %3 ticks").arg(QString::fromUtf8(note.Lyric), noteName(note.NoteNum)).arg(note.Length);
    const QString reason = silentReason(*document_, note);
    if (!reason.isEmpty()) text += "\n" + reason;
    QToolTip::showText(help->globalPos(), text, this);
    return true;
  }
  if (event->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
    if (tool_->key(static_cast<QKeyEvent*>(event))) return true;
  }
  return QWidget::event(event);
}

// --- Lyrics in place ---------------------------------------------------------------

namespace {

// Takes Tab, Enter and Esc from the lyric editor before focus handling does.
class LyricKeys : public QObject {
 public:
  LyricKeys(QObject* parent, std::function<void(int key)> onKey) : QObject(parent), onKey_(std::move(onKey)) {}

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::KeyPress) {
      const int key = static_cast<QKeyEvent*>(event)->key();
      if (key == Qt::Key_Tab || key == Qt::Key_Space || key == Qt::Key_Return || key == Qt::Key_Enter ||
          key == Qt::Key_Escape) {
        onKey_(key);
        return true;
      }
    }
    return QObject::eventFilter(watched, event);
  }

 private:
  std::function<void(int key)> onKey_;
};

}  // namespace

bool PianoRoll::editingLyric() const { return lyricEditor_ != nullptr && lyricEditor_->isVisible(); }

void PianoRoll::editLyric(int index) {
  const NoteData* note = document_->notes().getNote(index);
  if (note == nullptr) return;
  if (lyricEditor_ == nullptr) {
    lyricEditor_ = new QLineEdit(this);
    lyricEditor_->setAttribute(Qt::WA_InputMethodEnabled, true);
    lyricEditor_->installEventFilter(new LyricKeys(lyricEditor_, [this](int key) {
      if (key == Qt::Key_Escape) {
        lyricEditor_->hide();
        setFocus();
      } else {
        commitLyric(key == Qt::Key_Tab || key == Qt::Key_Space);
      }
    }));
  }
  lyricIndex_ = index;
  const QRectF box = noteRect(index);
  lyricEditor_->setGeometry(QRect(static_cast<int>(box.x()), static_cast<int>(box.y()) - 4,
                                  std::max(80, static_cast<int>(box.width())), scale_->rowHeight() + 8));
  lyricEditor_->setText(QString::fromUtf8(note->Lyric));
  lyricEditor_->selectAll();
  lyricEditor_->show();
  lyricEditor_->setFocus();
}

void PianoRoll::commitLyric(bool moveOn) {
  if (!editingLyric()) return;
  const int index = lyricIndex_;
  QByteArray text = lyricEditor_->text().trimmed().toUtf8();
  lyricEditor_->hide();
  setFocus();
  CNoteMan& notes = document_->notes();
  // Romaji typed for a kana bank is written as the kana it sings, and kana
  // for a romaji bank as romaji.
  if (const NoteData* edited = notes.getNote(index)) text = document_->bankForm(text, edited->NoteNum);
  if (notes.getNote(index) != nullptr && text != QByteArray(notes.getLyric(index))) {
    document_->beginNoteEdit(index, undo::kLyric);
    notes.setLyric(index, text.constData());
    document_->endNoteEdit(index, undo::kLyric);
  }
  if (moveOn) {
    const int next = notes.nextNote(index);
    if (next >= 0) {
      notes.addSelect(next, 0);
      document_->touch();
      editLyric(next);
    }
  }
}

// --- Expression handles ----------------------------------------------------------

void PianoRoll::setHideSelectedCurves(bool hide) {
  hideSelectedCurves_ = hide;
  update();
}

QRectF PianoRoll::lyricRect(int index, const QFontMetrics& metrics, QString* shown) {
  const NoteData* note = document_->notes().getNote(index);
  if (note == nullptr) return QRectF();
  const QRectF box = noteRect(index);
  double left = box.x() + 2;
  const double right = box.right() - 2;
  // Past the handles at the note's start (they are grabbed there).
  if (handlesShown(index)) {
    const size_t count = pitchPoints(document_->engine(), index).size();
    for (size_t k = 0; k < count; ++k) {
      const QPointF h = pitchPointPosition(index, static_cast<int>(k));
      const double reach = kHandleRadius + 1;
      if (h.y() + reach < box.top() || h.y() - reach > box.bottom()) continue;
      if (h.x() + reach > left && h.x() - reach < left + metrics.horizontalAdvance(QString::fromUtf8(note->Lyric)) + 3) {
        left = std::max(left, h.x() + reach + 1);
      }
    }
  }
  const QString full = QString::fromUtf8(note->Lyric);
  const int room = static_cast<int>(right - left) - 3;
  if (room <= 0) return QRectF();
  const QString lyric = metrics.horizontalAdvance(full) <= room ? full : metrics.elidedText(full, Qt::ElideRight, room);
  if (lyric.isEmpty() || lyric == QStringLiteral("…")) return QRectF();
  if (shown != nullptr) *shown = lyric;
  return QRectF(left, box.y() + 1, std::min<double>(metrics.horizontalAdvance(lyric) + 3, right - left),
                box.height() - 2);
}

QFont PianoRoll::lyricFont() {
  QFont font = this->font();
  font.setPixelSize(std::clamp(scale_->rowHeight() - 3, 8, 18));
  return font;
}

bool PianoRoll::handlesShown(int index) {
  CNoteMan& notes = document_->notes();
  const NoteData* note = notes.getNote(index);
  return note != nullptr && note->selected != 0 && notes.getSelectCount() <= kMaxHandleNotes && !hideSelectedCurves_;
}

QPointF PianoRoll::pitchPointPosition(int index, int point) {
  ctonm2& engine = document_->engine();
  const std::vector<CurvePoint> points = pitchPoints(engine, index);
  if (point < 0 || static_cast<size_t>(point) >= points.size()) return QPointF();
  const QRectF box = noteRect(index);
  const double ppm = pixelsPerMs(*document_, index, *scale_);
  return QPointF(box.x() + points[static_cast<size_t>(point)].ms * ppm,
                 box.center().y() - points[static_cast<size_t>(point)].value / 100.0 * scale_->rowHeight());
}

namespace {

bool near(const QPointF& a, const QPointF& b) {
  return std::abs(a.x() - b.x()) <= PianoRoll::kHandleRadius + 1 &&
         std::abs(a.y() - b.y()) <= PianoRoll::kHandleRadius + 1;
}

}  // namespace

PianoRoll::Handle PianoRoll::handleAt(const QPointF& point) {
  // The nearest handle within reach, so that handles drawn close together
  // can each be taken.
  Handle found;
  double best = 1e9;
  auto consider = [&](const QPointF& at, HandleKind kind, int note, int index) {
    if (!near(point, at)) return;
    const double distance = std::hypot(point.x() - at.x(), point.y() - at.y());
    if (distance < best) {
      best = distance;
      found = {kind, note, index};
    }
  };
  CNoteMan& notes = document_->notes();
  if (notes.getSelectCount() > kMaxHandleNotes) return found;
  ctonm2& engine = document_->engine();
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].selected == 0 || ctonm2::is_r(engine.notes[i].Lyric)) continue;
    const QRectF box = noteRect(i);
    const VibratoBox v = vibratoBox(engine, i, box, *scale_);
    if (!v.box.isNull()) {
      consider(v.fadeIn, kVibratoFadeIn, i, -1);
      consider(v.fadeOut, kVibratoFadeOut, i, -1);
      consider(v.depth, kVibratoDepth, i, -1);
      consider(v.length, kVibratoLength, i, -1);
    }
    const size_t count = pitchPoints(engine, i).size();
    for (size_t k = 0; k < count; ++k)
      consider(pitchPointPosition(i, static_cast<int>(k)), kPitchPoint, i, static_cast<int>(k));
  }
  return found;
}

void PianoRoll::paintHandles(QPainter& p) {
  CNoteMan& notes = document_->notes();
  if (notes.getSelectCount() == 0 || notes.getSelectCount() > kMaxHandleNotes || hideSelectedCurves_) return;
  ctonm2& engine = document_->engine();
  p.setRenderHint(QPainter::Antialiasing, true);
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].selected == 0 || ctonm2::is_r(engine.notes[i].Lyric)) continue;
    const QRectF box = noteRect(i);
    if (box.right() < -50 || box.left() > width() + 50) continue;
    const VibratoBox v = vibratoBox(engine, i, box, *scale_);
    if (!v.box.isNull()) {
      p.setPen(QPen(QColor(120, 60, 160), 1, Qt::DashLine));
      p.setBrush(QColor(120, 60, 160, 30));
      p.drawRect(v.box);
      p.setPen(QPen(QColor(120, 60, 160), 1));
      p.setBrush(Qt::white);
      for (const QPointF& h : {v.length, v.depth, v.fadeIn, v.fadeOut}) {
        p.drawRect(QRectF(h.x() - 3.5, h.y() - 3.5, 7, 7));
      }
    }
    const size_t count = pitchPoints(engine, i).size();
    p.setPen(QPen(QColor(200, 40, 60), 1.2));
    p.setBrush(Qt::white);
    for (size_t k = 0; k < count; ++k) {
      p.drawEllipse(pitchPointPosition(i, static_cast<int>(k)), kHandleRadius, kHandleRadius);
    }
  }
  p.setRenderHint(QPainter::Antialiasing, false);
}

void PianoRoll::editNote(int index, uint32_t cmd, const std::function<void()>& edit) {
  document_->beginNoteEdit(index, cmd);
  edit();
  document_->endNoteEdit(index, cmd);
}

void PianoRoll::editSelection(uint32_t cmd, const std::function<void()>& edit) {
  document_->beginEdit(cmd);
  edit();
  document_->endEdit(cmd);
}

void PianoRoll::contextMenuEvent(QContextMenuEvent* event) {
  CNoteMan& notes = document_->notes();
  CCNoteMan& model = document_->model();
  const Handle handle = handleAt(event->pos());
  const int index = handle.note >= 0 ? handle.note : noteAt(event->pos());
  if (index < 0) return;
  if (!notes.isSelected(index)) {
    notes.addSelect(index, 0);
    document_->touch();
  }
  QMenu menu(this);
  // The pitch line of this note.
  QMenu* pitch = menu.addMenu(tr("&Pitch Line"));
  const std::vector<CurvePoint> points = pitchPoints(document_->engine(), index);
  // The point left of the mouse: new points go after it; its segment is
  // the one whose shape changes.
  const double ms = (event->pos().x() - noteRect(index).x()) / pixelsPerMs(*document_, index, *scale_);
  int before = -1;
  for (size_t k = 0; k < points.size(); ++k) {
    if (points[k].ms <= ms) before = static_cast<int>(k);
  }
  const int segment = std::clamp(before + 1, 1, std::max(1, static_cast<int>(points.size()) - 1));
  QAction* add = pitch->addAction(tr("&Add Point Here"), this, [=] {
    editNote(index, undo::kPitch, [=] {
      // The core halves the segment after point k; the new point is then
      // moved to the click, the following point staying where it was.
      const int k = std::max(before, 0);
      if (document_->notes().addPitchPoint(index, k) == 0) return;
      float* widths = document_->notes().getNote(index)->PBW;
      const double width = std::max(0.0, ms - points[static_cast<size_t>(k)].ms);
      if (static_cast<size_t>(k) + 1 < points.size()) {
        const double following = points[static_cast<size_t>(k) + 1].ms - points[static_cast<size_t>(k)].ms;
        widths[k + 1] = static_cast<float>(std::min(width, following));
        widths[k + 2] = static_cast<float>(following - widths[k + 1]);
      } else {
        widths[k + 1] = static_cast<float>(width);
      }
    });
  });
  add->setEnabled(!points.empty());
  QAction* remove = pitch->addAction(tr("&Delete Point"), this, [=] {
    editNote(index, undo::kPitch, [=] { document_->notes().delPitchPoint(index, handle.point); });
  });
  remove->setEnabled(handle.kind == kPitchPoint && points.size() > 2);
  QMenu* shape = pitch->addMenu(tr("Segment &Shape"));
  const std::pair<QString, int> shapes[] = {
      {tr("S-Curve"), 0}, {tr("Linear"), 's'}, {tr("R (Fast Start)"), 'r'}, {tr("J (Slow Start)"), 'j'}};
  const int current = notes.getPitchKind(index, segment);
  for (const auto& [name, code] : shapes) {
    QAction* act = shape->addAction(name, this, [=, shapeCode = code] {
      editNote(index, undo::kPitch, [=] { document_->notes().setPitchKind(index, segment, shapeCode); });
    });
    act->setCheckable(true);
    act->setChecked(current == code || (code == 0 && current != 's' && current != 'r' && current != 'j'));
  }
  shape->setEnabled(points.size() > 1);
  pitch->addAction(tr("&Reset to Default"), this, [=] {
    editSelection(undo::kPitch, [=] {
      for (int32_t i = 0; i < document_->engine().noteCount; ++i) {
        if (document_->notes().isSelected(i)) document_->notes().defaultPitch(i);
      }
    });
  });
  pitch->addAction(tr("&Copy Pitch Line"), this, [=] { document_->model().copyPB(document_->notes().getNote(index)); });
  QAction* pastePitch = pitch->addAction(tr("&Paste Pitch Line"), this, [=] {
    editSelection(undo::kPitch, [=] {
      for (int32_t i = 0; i < document_->engine().noteCount; ++i) {
        if (document_->notes().isSelected(i)) document_->model().pastePB(document_->notes().getNote(i));
      }
    });
  });
  pastePitch->setEnabled(model.isClipPB());

  QMenu* vibrato = menu.addMenu(tr("&Vibrato"));
  vibrato->addAction(tr("&Add Default"), this,
                     [=] { editSelection(undo::kVibrato, [=] { document_->notes().defaultVibratoToSelected(); }); });
  vibrato->addAction(tr("&Clear"), this,
                     [=] { editSelection(undo::kVibrato, [=] { document_->notes().clearVibratoToSelected(); }); });
  vibrato->addAction(tr("C&opy Vibrato"), this, [=] {
    memcpy(document_->model().clipVBR(), document_->notes().getNote(index)->VBR, sizeof(int16_t) * 10);
  });
  QAction* pasteVibrato = vibrato->addAction(tr("&Paste Vibrato"), this, [=] {
    editSelection(undo::kVibrato, [=] {
      for (int32_t i = 0; i < document_->engine().noteCount; ++i) {
        if (document_->notes().isSelected(i)) {
          memcpy(document_->notes().getNote(i)->VBR, document_->model().clipVBR(), sizeof(int16_t) * 10);
        }
      }
    });
  });
  pasteVibrato->setEnabled(model.clipVBR()[0] != 0 || model.clipVBR()[2] != 0);

  menu.addSeparator();
  menu.addAction(tr("Note &Properties…"), this, [this] { emit propertiesRequested(); });
  menu.addAction(tr("Note &Details…"), this, [this, index] { emit detailsRequested(index); });
  menu.exec(event->globalPos());
}
