// RollEditor: the roll with its ruler, keyboard and scroll bars, all on
// one time scale. It keeps the scroll bars and the view in step, scrolls
// to follow playback in the mode the user picks, and never while the user
// drags.
#pragma once

#include <QWidget>
#include <cstdint>

class BackingLane;
class EditorDocument;
class Keyboard;
class PianoRoll;
class QScrollBar;
class QComboBox;
class Ruler;
class TimeScale;
class ValuePane;

class RollEditor : public QWidget {
  Q_OBJECT

 public:
  enum class Follow { kPage, kContinuous, kOff };

  RollEditor(EditorDocument* document, QWidget* parent = nullptr);

  TimeScale* timeScale() const { return scale_; }
  PianoRoll* roll() const { return roll_; }
  Ruler* ruler() const { return ruler_; }
  ValuePane* valuePane() const { return valuePane_; }
  BackingLane* backingLane() const { return backingLane_; }

  void setFollow(Follow follow) { follow_ = follow; }
  Follow follow() const { return follow_; }
  // The play position (-1: not playing), the note being sung and the
  // rendered part of the song, in ticks.
  void showPlayback(int64_t tick, int singing, int64_t renderedFrom, int64_t renderedTo);
  // Shows the start of the song with its notes' range in the middle.
  void showSongStart();

 public slots:
  void zoomIn();
  void zoomOut();
  void zoomInVertical();
  void zoomOutVertical();
  // Zooms so that the whole song fits the roll, its range in the middle.
  void fitSong();

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  struct SongRange {
    int low = 127, high = 0;  // note numbers of the sounding notes
    int64_t firstStart = -1;  // tick of the first
  };
  SongRange songRange() const;
  // Centres the range vertically, zooming out until it fits (in as well
  // with zoomToFit).
  void showRange(const SongRange& range, bool zoomToFit);
  void updateScrollBars();

  EditorDocument* document_;
  TimeScale* scale_;
  PianoRoll* roll_;
  Ruler* ruler_;
  Keyboard* keyboard_;
  ValuePane* valuePane_;
  BackingLane* backingLane_;
  QComboBox* paneMode_;
  QScrollBar* horizontal_;
  QScrollBar* vertical_;
  Follow follow_ = Follow::kPage;
  bool syncing_ = false;
};
