#include "ui/shell/document.h"

#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "app/project_file.h"
#include "app/voice_bank.h"
#include "editing/recovery.h"
#include "engine/ranges.h"
#include "support/safe_output.h"
#include "support/userdirs.h"
#include "ui/shell/texts.h"
#include "voicebank/voiceset.h"

EditorDocument::EditorDocument(QObject* parent) : QObject(parent), model_(std::make_unique<CCNoteMan>(&scale_)) {
  model_->setUndoView(this);
  model_->setRecoveryPath(newRecoveryCopyPath());
  engine().set_projectName("");  // a new project has no name until it is given one
  reset();
}

EditorDocument::~EditorDocument() {
  // A render reads the notes: it ends before they go.
  ctonm2& e = engine();
  if (e.renderState.load() != 0) e.render_stop();
  free(e.render_thread_join(nullptr));
  model_->setUndoView(nullptr);
}

void EditorDocument::reset() {
  stackedCount_ = 0;
  // The notes the window held are gone (the user was asked): so is their
  // recovery copy. The notifier is not told, which would also retitle.
  history().clean(nullptr);
  discardRecovery();
  undoTitle_ = coreText(undoMenuTitle(0).c_str());
  redoTitle_ = coreText(redoMenuTitle(0).c_str());
  ++revision_;
  emit undoTitlesChanged(undoTitle_, redoTitle_);
  emit modifiedChanged(false);
  emit changed();
}

void EditorDocument::newProject() {
  emit editStarting();
  ctonm2& e = engine();
  e.free_snt();
  e.tempo = 120.0f;
  e.sntVersion = 200;
  scale_.resetScale();
  path_.clear();
  sourcePath_.clear();
  backing_.clear();
  reset();
  emit pathChanged();
}

bool EditorDocument::open(const QString& path, QString* error, QString* warning) {
  return load(path, path, error, warning);
}

// Reads `path`, finding a relative voice folder from `bankBase`'s folder.
bool EditorDocument::load(const QString& path, const QString& bankBase, QString* error, QString* warning) {
  const std::string file = path.toStdString();
  const std::string reason = notAProject(file);
  if (!reason.empty()) {
    *error = tr("Not a project: %1 (%2)").arg(path, QString::fromStdString(reason));
    return false;
  }
  emit editStarting();
  errno = 0;
  notes().setForcedCharset(std::string());
  if (notes().openSnt(file.c_str(), userFolder(UserFolder::kVoice).c_str()) < 0) {
    *error = tr("Cannot open %1: %2").arg(path, QString::fromLocal8Bit(strerror(errno != 0 ? errno : EIO)));
    newProject();
    return false;
  }
  path_ = QFileInfo(path).absoluteFilePath();
  sourcePath_.clear();
  const std::string named = engine().voiceDir;
  bool elsewhere = false;
  const std::string bank = resolveVoiceBank(bankBase.toStdString(), named, &elsewhere);
  const bool none = bank.empty();
  engine().set_voiceDir(bank.c_str());
  if (!bank.empty()) notes().readVoiceset();
  QString backingWarning;
  loadBacking(&backingWarning);
  if (warning != nullptr) {
    warning->clear();
    if (voiceEntryCount() == 0) {
      *warning = none ? tr("The project names no voice bank: choose one under Project > Singer.")
                      : tr("No voice bank at %1: the notes stay silent.").arg(QString::fromStdString(bank));
    }
    if (!backingWarning.isEmpty()) *warning = warning->isEmpty() ? backingWarning : *warning + " " + backingWarning;
    // Values past what a render can take were brought in as they were read.
    std::vector<std::string> moved = engine().readNotices;
    if (engine().voiceset != nullptr) {
      moved.insert(moved.end(), engine().voiceset->notices().begin(), engine().voiceset->notices().end());
    }
    if (!moved.empty()) {
      const QString said = tr("%n value(s) outside their range were brought in (%1).", nullptr, static_cast<int>(moved.size()))
                               .arg(QString::fromStdString(moved.front()));
      *warning = warning->isEmpty() ? said : *warning + " " + said;
    }
  }
  reset();
  emit pathChanged();
  return true;
}

bool EditorDocument::openRecovery(const QString& path, QString* error) {
  const std::string copy = path.toStdString();
  const QString saved = QString::fromStdString(recoveryCopyProjectPath(copy));
  if (!load(path, saved.isEmpty() ? path : saved, error, nullptr)) return false;
  ctonm2& e = engine();
  // The copy's file name is no name of the project's.
  if (QFileInfo(path).fileName() == QString::fromUtf8(e.projectName)) e.set_projectName("");
  path_ = saved.isEmpty() ? QString() : QFileInfo(saved).absoluteFilePath();
  e.set_projectPath(path_.toStdString().c_str());
  e.preparationNotes();
  // Modified, and so kept in this document's own copy; the old one goes
  // only once that copy is there.
  history().setOtherModified(model_->undoCallback());
  const std::string own = model_->recoveryPath();
  if (!own.empty() && own != copy && QFileInfo::exists(QString::fromStdString(own))) removeRecoveryCopy(copy);
  emit pathChanged();
  return true;
}

void EditorDocument::discardRecovery() {
  if (!model_->recoveryPath().empty()) removeRecoveryCopy(model_->recoveryPath());
}

bool EditorDocument::save(const QString& path, int version, QString* error) {
  emit editStarting();
  const std::string target = path.toStdString();
  ctonm2& e = engine();
  const int32_t oldVersion = e.sntVersion;
  e.sntVersion = version;
  errno = 0;
  SafeOutput out(target);
  const bool written =
      !out.path().empty() && notes().writeSnt(out.path().c_str(), notes().defaultPath().c_str()) == 1 && out.commit();
  if (!written) {
    e.sntVersion = oldVersion;
    *error = tr("Cannot write %1: %2").arg(path, QString::fromLocal8Bit(strerror(errno != 0 ? errno : EIO)));
    return false;
  }
  path_ = QFileInfo(path).absoluteFilePath();
  // Saving names no project: the engine would take the file's name for one.
  const std::string name = e.projectName;
  e.set_projectPath(path_.toStdString().c_str());
  e.set_projectName(name.c_str());
  history().setSavePoint(model_->undoCallback());
  emit pathChanged();
  return true;
}

QByteArray EditorDocument::bankForm(const QByteArray& lyric, int noteNum) {
  cvoiceset* voices = engine().voiceset;
  return voices == nullptr ? lyric : QByteArray::fromStdString(voices->sungForm(lyric.toStdString(), noteNum));
}

// --- Backing track -------------------------------------------------------------------

void EditorDocument::loadBacking(QString* warning) {
  backing_.clear();
  const ctonm2& e = engine();
  if (e.audioTrack == nullptr) return;
  std::string why;
  if (!backing_.load(e.audioTrack, &why)) {
    // The path stays in the project: the file may be back next time.
    *warning = tr("The backing track cannot be played: %1").arg(QString::fromStdString(why));
    return;
  }
  backing_.offsetMs = e.audioTrackOffset;
  backing_.volume = e.audioTrackVolume;
  backing_.muted = e.audioTrackMute != 0;
}

void EditorDocument::backingChanged() {
  ctonm2& e = engine();
  e.set_audioTrack(backing_.empty() ? nullptr : backing_.path().c_str());
  e.audioTrackOffset = backing_.offsetMs;
  e.audioTrackVolume = backing_.volume;
  e.audioTrackMute = backing_.muted ? 1 : 0;
  markOtherModified();
}

bool EditorDocument::setBackingTrack(const QString& path, QString* error) {
  emit editStarting();
  BackingTrack loaded;
  std::string why;
  if (!loaded.load(QFileInfo(path).absoluteFilePath().toStdString(), &why)) {
    *error = QString::fromStdString(why);
    return false;
  }
  backing_ = std::move(loaded);
  backingChanged();
  return true;
}

void EditorDocument::removeBackingTrack() {
  emit editStarting();
  backing_.clear();
  backingChanged();
}

void EditorDocument::previewBackingOffset(double ms) {
  emit editStarting();
  backing_.offsetMs = ms;
  touch();
}

void EditorDocument::setBackingOffset(double ms) {
  emit editStarting();
  backing_.offsetMs = ms;
  backingChanged();
}

void EditorDocument::setBackingVolume(int percent) {
  emit editStarting();
  bool moved = false;
  backing_.volume = static_cast<int>(ranges::kBackingVolume.clamp(percent, &moved));
  backingChanged();
}

void EditorDocument::setBackingMuted(bool muted) {
  emit editStarting();
  backing_.muted = muted;
  backingChanged();
}

QString EditorDocument::displayName() {
  const char* name = engine().projectName;
  if (name[0] != '\0' && strcmp(name, "(no title)") != 0) return QString::fromUtf8(name);
  if (!path_.isEmpty()) return QFileInfo(path_).completeBaseName();
  return tr("Untitled");
}

QString EditorDocument::voiceFolder() { return QString::fromUtf8(engine().voiceDir); }

int EditorDocument::voiceEntryCount() {
  const cvoiceset* set = engine().voiceset;
  return set != nullptr ? set->count() : 0;
}

bool EditorDocument::setVoiceFolder(const QString& folder, QString* error) {
  emit editStarting();
  const std::string path = folder.toStdString();
  model_->changeVoiceSet(path.c_str(), true);
  touch();
  if (voiceEntryCount() == 0) {
    *error = tr("No voice bank entries at %1").arg(folder);
    return false;
  }
  return true;
}

void EditorDocument::beginEdit(uint32_t cmd) {
  emit editStarting();
  history().beginSession(cmd);
  sessionOpen_ = true;
}

void EditorDocument::endEdit(uint32_t cmd) {
  history().endSession(cmd, model_->undoCallback());
  sessionOpen_ = false;
  touch();
  checkStacked();
}

void EditorDocument::beginNoteEdit(int32_t index, uint32_t cmd) {
  emit editStarting();
  history().beginSession(index, cmd);
  sessionOpen_ = true;
}

void EditorDocument::endNoteEdit(int32_t index, uint32_t cmd) {
  history().endSession(index, cmd, model_->undoCallback());
  sessionOpen_ = false;
  touch();
  checkStacked();
}

void EditorDocument::checkStacked() {
  const std::vector<bool>& marks = stacked();
  const int count = static_cast<int>(std::count(marks.begin(), marks.end(), true));
  if (count > stackedCount_) {
    emit notice(tr("%n note(s) start on the same tick and pitch as another: one hides the other", nullptr, count));
  }
  stackedCount_ = count;
}

const std::vector<bool>& EditorDocument::stacked() {
  if (stackedRevision_ == revision_) return stacked_;
  const ctonm2& e = engine();
  const std::vector<int64_t>& s = starts();
  std::vector<int32_t> order;
  for (int32_t i = 0; i < e.noteCount; ++i) {
    if (!ctonm2::is_r(e.notes[i].Lyric)) order.push_back(i);
  }
  auto key = [&](int32_t i) { return std::make_tuple(s[static_cast<size_t>(i)], e.notes[i].NoteNum, e.notes[i].layer); };
  std::sort(order.begin(), order.end(), [&](int32_t a, int32_t b) { return key(a) < key(b); });
  stacked_.assign(static_cast<size_t>(e.noteCount), false);
  for (size_t k = 1; k < order.size(); ++k) {
    if (key(order[k]) == key(order[k - 1])) {
      stacked_[static_cast<size_t>(order[k])] = true;
      stacked_[static_cast<size_t>(order[k - 1])] = true;
    }
  }
  stackedRevision_ = revision_;
  return stacked_;
}

int32_t EditorDocument::noteAt(int64_t tick, int32_t noteNum, int32_t layer) {
  const ctonm2& e = engine();
  const std::vector<int64_t>& s = starts();
  for (int32_t i = 0; i < e.noteCount; ++i) {
    const NoteData& note = e.notes[i];
    if (s[static_cast<size_t>(i)] == tick && note.NoteNum == noteNum && !ctonm2::is_r(note.Lyric) &&
        (layer < 0 || note.layer == layer)) {
      return i;
    }
  }
  return -1;
}

void EditorDocument::markOtherModified() {
  history().setOtherModified(model_->undoCallback());
  touch();
}

void EditorDocument::undo() {
  if (!history().isCanUndo()) return;
  emit editStarting();
  history().undo(model_->undoCallback());
  touch();
}

void EditorDocument::redo() {
  if (!history().isCanRedo()) return;
  emit editStarting();
  history().redo(model_->undoCallback());
  touch();
}

void EditorDocument::touch() {
  ++revision_;
  emit changed();
}

void EditorDocument::setMenuTitles(const std::string& undoTitle, const std::string& redoTitle) {
  undoTitle_ = coreText(undoTitle.c_str());
  redoTitle_ = coreText(redoTitle.c_str());
  emit undoTitlesChanged(undoTitle_, redoTitle_);
}

void EditorDocument::setEdited(bool modified) { emit modifiedChanged(modified); }

const std::vector<int64_t>& EditorDocument::starts() {
  if (startsRevision_ != revision_) {
    const ctonm2& e = engine();
    starts_.resize(static_cast<size_t>(e.noteCount));
    int64_t position = 0;
    for (int32_t i = 0; i < e.noteCount; ++i) {
      position += e.notes[i].Delta;
      starts_[static_cast<size_t>(i)] = position;
    }
    startsRevision_ = revision_;
  }
  return starts_;
}

float EditorDocument::tempoOf(int32_t index) {
  ctonm2& e = engine();
  if (temposRevision_ != revision_ || tempos_.size() != static_cast<size_t>(e.noteCount)) {
    tempos_.resize(static_cast<size_t>(e.noteCount));
    float tempo = e.tempo;
    for (int32_t i = 0; i < e.noteCount; ++i) {
      if (e.notes[i].Tempo > 0.0f) tempo = e.notes[i].Tempo;
      tempos_[static_cast<size_t>(i)] = tempo;
    }
    temposRevision_ = revision_;
  }
  return index >= 0 && index < e.noteCount ? tempos_[static_cast<size_t>(index)] : e.tempo;
}

int64_t EditorDocument::lengthTicks() {
  const std::vector<int64_t>& s = starts();
  int64_t end = 0;
  for (size_t i = 0; i < s.size(); ++i) end = std::max(end, s[i] + engine().notes[i].Length);
  return end;
}

void EditorDocument::preparePitchCurves() {
  if (pitchRevision_ == revision_) return;
  ctonm2& e = engine();
  if (e.renderState.load() != 0) return;  // the render owns the notes' curves now
  std::vector<float> envelopes(static_cast<size_t>(e.noteCount) * 16);
  for (int32_t i = 0; i < e.noteCount; ++i) memcpy(&envelopes[static_cast<size_t>(i) * 16], e.notes[i].Envelope, 64);
  e.preparationNotes();
  e.makePitchMode2();
  curves_.assign(static_cast<size_t>(e.noteCount), Curve());
  for (int32_t i = 0; i < e.noteCount; ++i) {
    const NoteData& note = e.notes[i];
    memcpy(e.notes[i].Envelope, &envelopes[static_cast<size_t>(i) * 16], 64);
    if (note._pitch == nullptr || note._pitchlen <= 1) continue;
    Curve& curve = curves_[static_cast<size_t>(i)];
    curve.cents.assign(note._pitch, note._pitch + note._pitchlen);
    curve.lead = static_cast<double>(note._preuttr) + note._stp + note.stptrim;
    curve.lengthMs = note._notelen;
    curve.tempo = note._tempo;
  }
  pitchRevision_ = revision_;
}
