// PianoRoll: the notes of one project on a grid of note rows and beats.
//
// It paints only what is visible: the rows, the grid at the quantize step,
// the notes as boxes with their lyrics, each note's rendered pitch curve
// and vibrato span, the selection, the rubber band, the play cursor and
// the note being sung. Mouse input goes to the active tool (select, pen,
// eraser); keys edit the selection; a lyric is edited in place.
#pragma once

#include <QPointer>
#include <QRect>
#include <QFont>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <memory>

class EditorDocument;
class QFontMetrics;
class QLineEdit;
class RollTool;
class TimeScale;

class PianoRoll : public QWidget {
  Q_OBJECT

 public:
  enum class Tool { kSelect, kPen, kEraser };

  // What can be grabbed on a selected note besides its box.
  enum HandleKind { kNoHandle, kPitchPoint, kVibratoLength, kVibratoDepth, kVibratoFadeIn, kVibratoFadeOut };
  struct Handle {
    HandleKind kind = kNoHandle;
    int note = -1;
    int point = -1;  // pitch points: 0 is the start point
  };
  // Handles are shown on at most this many selected notes.
  static constexpr int kMaxHandleNotes = 64;
  static constexpr double kHandleRadius = 4.5;

  PianoRoll(EditorDocument* document, TimeScale* scale, QWidget* parent = nullptr);
  ~PianoRoll() override;

  EditorDocument* document() const { return document_; }
  TimeScale* timeScale() const { return scale_; }

  void setTool(Tool tool);
  Tool tool() const { return toolKind_; }

  // The note whose box holds the point (sounding notes only), -1 if none.
  int noteAt(const QPoint& point);
  // The box of note i on screen.
  QRectF noteRect(int index);
  // Where a note's lyric is drawn (empty when it is left out): inside the
  // note, after any pitch handle at its start; *shown gets the text drawn,
  // elided to fit.
  QRectF lyricRect(int index, const QFontMetrics& metrics, QString* shown = nullptr);
  QFont lyricFont();
  // Whether a note shows its pitch and vibrato handles.
  bool handlesShown(int index);

  // The play cursor (-1: hidden) and the note being sung (-1: none).
  void setPlayCursor(int64_t tick, int singing);
  // The edit cursor: where Paste and Play from cursor start.
  int64_t cursorTick() const { return cursorTick_; }
  void setCursorTick(int64_t tick);

  // The rubber band drawn while selecting, in widget coordinates.
  void setRubberBand(const QRect& rect);

  // The handle under a point, and a pitch point on screen.
  Handle handleAt(const QPointF& point);
  QPointF pitchPointPosition(int index, int point);
  // While notes are dragged their old curves are not drawn.
  void setHideSelectedCurves(bool hide);

  // Opens the in-place lyric editor over note i.
  void editLyric(int index);
  bool editingLyric() const;

  // The default lyric of a note made with the pen.
  static const char* kPenLyric;

 signals:
  // The user clicked an empty place: the edit cursor moved there.
  void cursorMoved(int64_t tick);
  // A drag went past the view's edge (the view scrolls).
  void wantScroll(int dx, int dy);
  // The note menu asked for the property dialog (the selection) or the
  // detail dialog (one note).
  void propertiesRequested();
  void detailsRequested(int index);
  // A note was drawn, clicked or dragged to another pitch: to be heard.
  void auditionWanted(int index);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  bool event(QEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  void commitLyric(bool moveOn);
  void paintHandles(QPainter& painter);
  // Runs `edit` on note `index` as one session of `cmd`.
  void editNote(int index, uint32_t cmd, const std::function<void()>& edit);
  // Runs `edit` on the selection as one session of `cmd`.
  void editSelection(uint32_t cmd, const std::function<void()>& edit);
  void moveSelectionByKey(int dTicks, int dNote);

  EditorDocument* document_;
  TimeScale* scale_;
  Tool toolKind_ = Tool::kSelect;
  std::unique_ptr<RollTool> tool_;
  int64_t playTick_ = -1;
  int singing_ = -1;
  int64_t cursorTick_ = 0;
  QRect rubberBand_;
  bool hideSelectedCurves_ = false;
  QPointer<QLineEdit> lyricEditor_;
  int lyricIndex_ = -1;
};
