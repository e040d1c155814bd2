// Player: playback of one document while it renders, for the editor.
//
// The audio output is process-wide (one CAudioOut, on SDL's device, opened
// the first time something plays), so there is one Player: playing a
// document stops whatever played before. A timer on the main thread reads
// the playback state and reports the play position, the note being sung
// and the rendered part in ticks; a finished play ends or, looped, starts
// again.
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <cstdint>
#include <memory>
#include <vector>

#include "playback/metronome.h"

class BackingTrack;
class AudioDevice;
class CAudioOut;
class EditorDocument;

class Player : public QObject {
  Q_OBJECT

 public:
  static Player& instance();
  ~Player() override;

  // Renders and plays fromTick..toTick (toTick <= fromTick: to the end).
  // False with *error when nothing can play (no device, no notes, no
  // voice bank: the core's own message).
  bool play(EditorDocument* document, int64_t fromTick, int64_t toTick, bool loop, QString* error);
  void pause();
  void resume();
  // Back to the start of the range, playing on.
  void rewind();
  // Stops playing and rendering; nothing happens when idle.
  void stop();
  // Plays a finished stretch of 16-bit samples at 44100 Hz (an entry as it
  // is cut, a note rendered alone, a test tone); whatever played stops.
  bool playClip(const std::vector<int16_t>& samples, QString* error);
  // Plays on the named device from now on (empty: the default one).
  bool setDevice(const QString& name, QString* error);

  bool active() const { return document_ != nullptr; }
  bool paused() const { return paused_; }
  void setLooping(bool loop) { loop_ = loop; }
  // A click on every beat in what plays from the next play on.
  void setMetronome(bool on) { metronomeOn_ = on; }
  const Metronome& metronome() const { return metronome_; }
  EditorDocument* document() const { return document_; }

 signals:
  // tick -1: stopped.
  void positionChanged(int64_t tick, int singing, int64_t renderedFrom, int64_t renderedTo);
  void stateChanged();

 private:
  Player();
  void poll();
  void finish();
  bool openDevice(QString* error);
  // The engine's underlay while playing: the backing track and the clicks.
  static void layUnder(void* context, int16_t* mix, int32_t samples, double songMs);

  QString deviceWanted_;
  std::unique_ptr<AudioDevice> device_;
  std::unique_ptr<CAudioOut> output_;
  QTimer timer_;
  EditorDocument* document_ = nullptr;
  int64_t fromTick_ = 0;
  int64_t toTick_ = 0;
  double fromMs_ = 0.0;
  bool loop_ = false;
  bool paused_ = false;
  bool metronomeOn_ = false;
  Metronome metronome_;
  // What the render now running lays under the voice.
  const BackingTrack* underBacking_ = nullptr;
  bool underClicks_ = false;
};
