// ValuePane: the lane under the roll, on the roll's time scale, showing
// either each note's volume envelope (its points dragged in time and
// level) or its intensity (a bar per note, dragged in height). An
// envelope drag is one "envl" step of that note, an intensity drag one
// "intc" step of the selection (or of the note when it is not selected).
#pragma once

#include <QWidget>
#include <cstdint>
#include <vector>

class EditorDocument;
class TimeScale;

class ValuePane : public QWidget {
  Q_OBJECT

 public:
  enum class Mode { kEnvelope, kIntensity };
  static constexpr int kMaxIntensity = 200;   // percent at the top of the lane
  static constexpr double kMaxLevel = 200.0;  // envelope percent at the top

  ValuePane(EditorDocument* document, TimeScale* scale, QWidget* parent = nullptr);
  QSize sizeHint() const override { return QSize(400, 110); }

  void setMode(Mode mode);
  Mode mode() const { return mode_; }

  // Screen position of envelope point k of note i (as envelopePoints lists
  // them), and of the top of note i's intensity bar.
  QPointF envelopePointPosition(int index, int point);
  QPointF intensityTop(int index);
  double levelToY(double level) const;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  // The note whose span holds x (sounding notes only), -1 if none.
  int noteAtX(double x);
  void applyDrag(const QPointF& point);
  void endDrag(bool keep);

  EditorDocument* document_;
  TimeScale* scale_;
  Mode mode_ = Mode::kEnvelope;
  // The drag under way: the note, the point, the values at the press.
  int dragNote_ = -1;
  int dragPoint_ = -1;
  QPointF origin_;
  float savedEnvelope_[16] = {};
  std::vector<int32_t> savedIntensity_;
};
