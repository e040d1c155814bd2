// EditorDocument: one open project as the editor sees it.
//
// It owns the editing model (CCNoteMan with its note manager, undo history
// and the project's time signatures) and is the one road by which the
// views change the notes: every edit is bracketed by beginEdit/endEdit (an
// undo session with its command code), and before an edit starts the
// document announces it (editStarting) so that playback stops first: the
// note list never changes while a render runs.
//
// What the views draw from is cached by revision: the start tick of every
// note, and the notes' rendered pitch curves and voice entries.
#pragma once

#include <QObject>
#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/scaleman.h"
#include "playback/backing.h"

class EditorDocument : public QObject, private UndoView {
  Q_OBJECT

 public:
  explicit EditorDocument(QObject* parent = nullptr);
  ~EditorDocument() override;

  CCNoteMan& model() { return *model_; }
  CNoteMan& notes() { return *model_->noteman(); }
  ctonm2& engine() { return *model_->noteman()->engine(); }
  CUndoMan& history() { return *model_->undoman(); }
  CScaleMan& scale() { return scale_; }

  // --- Files ------------------------------------------------------------------
  // An empty project: no notes, tempo 120, 4/4, no voice bank.
  void newProject();
  // Reads a project and the voice bank it names. False with *error when
  // the file holds no project or cannot be read; a missing voice bank is
  // not an error (the notes stay silent and *warning says so).
  bool open(const QString& path, QString* error, QString* warning = nullptr);
  // A recovery copy as an unsaved, modified project that remembers the
  // path it was saved at (if it ever was); the copy becomes this
  // document's own.
  bool openRecovery(const QString& path, QString* error);
  // This document's recovery copy, kept while it has unsaved edits.
  QString recoveryPath() const { return QString::fromStdString(model_->recoveryPath()); }
  // Removes the recovery copy: the user chose to lose the edits.
  void discardRecovery();
  // Saves in the 1.2 form (version 120) or the 2.0 form (200); on success
  // the project is at its save point.
  bool save(const QString& path, int version, QString* error);
  QString path() const { return path_; }
  // The file the notes came from when it is not a project (an imported
  // sequence), else the project's path; may be empty.
  QString sourcePath() const { return path_.isEmpty() ? sourcePath_ : path_; }
  void setSourcePath(const QString& path) { sourcePath_ = path; }
  // The project's name, or the file name, or "Untitled".
  QString displayName();
  bool modified() const { return model_->undoman()->getModified(); }
  int formVersion() { return engine().sntVersion; }

  // --- Voice bank -------------------------------------------------------------
  QString voiceFolder();
  // Sings with the bank at `folder`; the project is marked modified when it
  // changes. False with *error when no entry could be read there.
  bool setVoiceFolder(const QString& folder, QString* error);
  int voiceEntryCount();
  // A lyric as the bank sings it: romaji for a kana bank becomes the kana
  // of its entry, kana for a romaji bank romaji; otherwise as it is.
  QByteArray bankForm(const QByteArray& lyric, int noteNum);

  // --- Backing track ----------------------------------------------------------
  // Each change stops playback first (a render reads the track) and marks
  // the project modified; it is not in the undo history.
  const BackingTrack& backing() const { return backing_; }
  // Plays `path` under the song from its start at full volume. False with
  // *error when it cannot be read (the old track stays).
  bool setBackingTrack(const QString& path, QString* error);
  void removeBackingTrack();
  // Moves the track (song msec of its first sample): preview while a drag
  // runs, then set once where it ends.
  void previewBackingOffset(double ms);
  void setBackingOffset(double ms);
  void setBackingVolume(int percent);
  void setBackingMuted(bool muted);

  // --- Edits ------------------------------------------------------------------
  void beginEdit(uint32_t cmd);
  void endEdit(uint32_t cmd);
  void beginNoteEdit(int32_t index, uint32_t cmd);
  void endNoteEdit(int32_t index, uint32_t cmd);
  // A change outside the history (settings, a voice bank): modified mark
  // and recovery file, and views redraw.
  void markOtherModified();
  void undo();
  void redo();
  QString undoTitle() const { return undoTitle_; }
  QString redoTitle() const { return redoTitle_; }
  // The notes changed outside an edit (the selection, a live drag step).
  void touch();
  uint64_t revision() const { return revision_; }
  bool editing() const { return sessionOpen_; }

  // --- What the views draw from -----------------------------------------------
  // Start tick of every note (running sums of Delta; a live drag may leave
  // them out of order).
  const std::vector<int64_t>& starts();
  // Prepares the notes and builds their pitch curves, for drawing only:
  // the envelopes the preparation reshapes are put back as they were.
  // Nothing is done while a render runs (it owns the notes' curves then).
  void preparePitchCurves();
  // A note's rendered pitch curve as drawn: cents about the note every
  // kPitchStepMs from `lead` ms before its start, in the tempo in force.
  struct Curve {
    std::vector<float> cents;
    double lead = 0.0;
    double lengthMs = 0.0;
    float tempo = 0.0f;
  };
  // By note index, as last prepared: a render frees the engine's curves
  // and builds them anew on its own thread, so the views draw these copies.
  const std::vector<Curve>& curves() const { return curves_; }
  // The end of the last note in ticks.
  int64_t lengthTicks();
  // The tempo in force at note `index` (as ctonm2::get_tempo, kept for the
  // revision: the views ask for every note they draw).
  float tempoOf(int32_t index);
  // By note index: whether the note starts where another sounding note of
  // its layer starts, on the same pitch (one hides the other).
  const std::vector<bool>& stacked();
  // The index of a sounding note starting at `tick` on `noteNum` (on
  // `layer`, or any with -1), or -1.
  int32_t noteAt(int64_t tick, int32_t noteNum, int32_t layer);

 signals:
  void editStarting();
  void changed();
  void undoTitlesChanged(const QString& undoTitle, const QString& redoTitle);
  void modifiedChanged(bool modified);
  void pathChanged();
  // Something the user should know about the edit just made.
  void notice(const QString& text);

 private:
  void setMenuTitles(const std::string& undoTitle, const std::string& redoTitle) override;
  void setEdited(bool modified) override;
  void reset();
  bool load(const QString& path, const QString& bankBase, QString* error, QString* warning);
  // After an edit: a word when it stacked notes on one another.
  void checkStacked();
  // The track the engine names, read (or cleared); a word when it cannot be.
  void loadBacking(QString* warning);
  // The track's placement into the engine's fields, then modified.
  void backingChanged();

  CScaleMan scale_;
  std::unique_ptr<CCNoteMan> model_;
  BackingTrack backing_;
  QString path_;
  QString sourcePath_;
  QString undoTitle_;
  QString redoTitle_;
  uint64_t revision_ = 1;
  uint64_t startsRevision_ = 0;
  uint64_t pitchRevision_ = 0;
  std::vector<int64_t> starts_;
  uint64_t temposRevision_ = 0;
  std::vector<float> tempos_;
  std::vector<Curve> curves_;
  uint64_t stackedRevision_ = 0;
  std::vector<bool> stacked_;
  int stackedCount_ = 0;
  bool sessionOpen_ = false;
};
