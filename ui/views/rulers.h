// The panes beside the roll: the ruler above it (measures and beats, tempo
// marks, the rendered part, the play and edit cursors) and the keyboard to
// its left. Both follow the roll's time scale.
#pragma once

#include <QDialog>
#include <QWidget>
#include <cstdint>

class QComboBox;
class QSpinBox;
class EditorDocument;
class TimeScale;

class Ruler : public QWidget {
  Q_OBJECT

 public:
  Ruler(EditorDocument* document, TimeScale* scale, QWidget* parent = nullptr);
  QSize sizeHint() const override { return QSize(400, 34); }

  // -1 hides a mark.
  void setPlayTick(int64_t tick);
  void setRenderedTicks(int64_t from, int64_t to);
  void setCursorTick(int64_t tick);

 signals:
  void clicked(int64_t tick);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 public:
  // The measure (from 0) that holds a tick, and the tick where measure m starts.
  int measureAt(int64_t tick);
  int64_t measureStart(int measure);
  // The position the ruler's menu works at: the tick under x, on the grid.
  int64_t menuTick(int x);
  // As the ruler's menu does them, each one undo step: a tempo change at a
  // tick (0 removes the one there), a time signature from a measure on.
  void setTempoAt(int64_t tick, float tempo);
  void setTimeSignature(int measure, int beats, int note);
  void removeTimeSignature(int measure);
  // The signature in force at a measure: beats and note value.
  void signatureAt(int measure, int* beats, int* note);

 private:
  EditorDocument* document_;
  TimeScale* scale_;
  int64_t playTick_ = -1;
  int64_t renderedFrom_ = -1;
  int64_t renderedTo_ = -1;
  int64_t cursorTick_ = 0;
};

// The time signature of a measure on, as notation programs ask for it:
// beats per measure over the beat unit.
class TimeSignatureDialog : public QDialog {
  Q_OBJECT

 public:
  TimeSignatureDialog(int measure, int beats, int note, QWidget* parent = nullptr);
  int beats() const;
  int note() const;

 private:
  QSpinBox* beats_;
  QComboBox* unit_;
};

class Keyboard : public QWidget {
  Q_OBJECT

 public:
  Keyboard(TimeScale* scale, QWidget* parent = nullptr);
  QSize sizeHint() const override { return QSize(56, 400); }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  TimeScale* scale_;
};
