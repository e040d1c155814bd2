// The roll's tools, one class each. A tool gets the roll's mouse events
// and turns them into edits through the document.
//
// A drag is one undo session: it opens on the first movement, every mouse
// movement re-applies the move or resize from the snapshot taken then (so
// the notes follow the mouse without drifting), release puts the notes
// back in time order and closes the session, and Esc puts back what the
// snapshot held and closes it with nothing changed (no step recorded).
#pragma once

#include <QPoint>
#include <cstdint>
#include <vector>

class PianoRoll;
class QKeyEvent;
class QMouseEvent;

class RollTool {
 public:
  explicit RollTool(PianoRoll& roll) : roll_(roll) {}
  virtual ~RollTool() = default;
  virtual void press(QMouseEvent* event) = 0;
  virtual void move(QMouseEvent* event) = 0;
  virtual void release(QMouseEvent* event) = 0;
  // True when the key was taken (Esc during a drag).
  virtual bool key(QKeyEvent*) { return false; }
  // The cursor shape over a point.
  virtual Qt::CursorShape cursorAt(const QPoint& point) = 0;

 protected:
  PianoRoll& roll_;
};

class SelectTool : public RollTool {
 public:
  using RollTool::RollTool;
  void press(QMouseEvent* event) override;
  void move(QMouseEvent* event) override;
  void release(QMouseEvent* event) override;
  bool key(QKeyEvent* event) override;
  Qt::CursorShape cursorAt(const QPoint& point) override;

  // Pixels from a box's right edge that grab it for resizing.
  static constexpr int kEdgeGrab = 5;

 private:
  enum class Mode { kNone, kPending, kMove, kResize, kBand, kHandle };
  bool onRightEdge(int index, const QPoint& point);
  void startDrag();
  void apply(const QPoint& point);
  void cancel();
  // Dragging a pitch point or a vibrato handle of one note: one "ptch" or
  // "vbrt" session, each movement applied to the values taken at the press.
  void startHandle(const QPoint& point);
  void applyHandle(const QPoint& point);
  void restoreHandle();

  struct Saved {
    int32_t delta;
    int16_t noteNum;
    int32_t length;
  };
  Mode mode_ = Mode::kNone;
  bool resizing_ = false;  // what a pending drag becomes
  QPoint origin_;
  int pressed_ = -1;
  int16_t heardNote_ = -1;  // the pressed note's number when last heard
  bool additive_ = false;
  std::vector<Saved> saved_;
  // The handle held, and the note's pitch line and vibrato at the press.
  int handleKind_ = 0;
  int handleNote_ = -1;
  int handlePoint_ = -1;
  std::vector<float> pbs_, pbw_, pby_;
  int16_t vbr_[10] = {};
};

class PenTool : public RollTool {
 public:
  using RollTool::RollTool;
  void press(QMouseEvent* event) override;
  void move(QMouseEvent* event) override;
  void release(QMouseEvent* event) override;
  bool key(QKeyEvent* event) override;
  Qt::CursorShape cursorAt(const QPoint&) override { return Qt::CrossCursor; }

 private:
  int made_ = -1;
  int64_t start_ = 0;
};

class EraserTool : public RollTool {
 public:
  using RollTool::RollTool;
  void press(QMouseEvent* event) override;
  void move(QMouseEvent* event) override;
  void release(QMouseEvent*) override { down_ = false; }
  Qt::CursorShape cursorAt(const QPoint&) override { return Qt::PointingHandCursor; }

 private:
  void eraseAt(const QPoint& point);
  bool down_ = false;
};
