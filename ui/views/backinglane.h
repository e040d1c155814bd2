// BackingLane: the backing track's waveform under the ruler, on the roll's
// time scale (ticks drawn as the track's msec under the tempo map). Drag
// it sideways to move the track against the song; its menu mutes it, sets
// its volume and offset, or removes it. Hidden while there is no track.
#pragma once

#include <QWidget>
#include <cstdint>

class EditorDocument;
class TickTimeline;
class TimeScale;

class BackingLane : public QWidget {
  Q_OBJECT

 public:
  BackingLane(EditorDocument* document, TimeScale* scale, QWidget* parent = nullptr);
  QSize sizeHint() const override { return QSize(400, 44); }

  // The song msec at x (between ticks as the tempo map has them).
  double msAt(double x) const;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  void follow();

  EditorDocument* document_;
  TimeScale* scale_;
  bool dragging_ = false;
  double pressMs_ = 0.0;
  double pressOffset_ = 0.0;
};
