// CUndoMan: the linear undo history of one project.
//
// Every edit is bracketed by a session: beginSession records the affected
// notes as they are, the caller edits through CNoteMan, and endSession
// records them as they became and pushes one step. Undo and redo replay a
// recorded state. The history holds at most 512 steps and knows whether
// the project differs from its saved state; after every change it calls
// an UndoCallback (see undo_callback for the editor's).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CNoteMan;

// A four-character command code, its bytes most significant first.
constexpr uint32_t undoCode(const char (&code)[5]) {
  return static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[3]));
}

namespace undo {
constexpr uint32_t kDelete = undoCode("del ");
constexpr uint32_t kAdd = undoCode("add ");
constexpr uint32_t kMove = undoCode("move");
constexpr uint32_t kSet = undoCode("set ");
constexpr uint32_t kLength = undoCode("lngh");
constexpr uint32_t kPitch = undoCode("ptch");
constexpr uint32_t kVibrato = undoCode("vbrt");
constexpr uint32_t kEnvelope = undoCode("envl");
constexpr uint32_t kIntensity = undoCode("intc");
constexpr uint32_t kTempo = undoCode("tmpo");
constexpr uint32_t kLyric = undoCode("lyrc");
constexpr uint32_t kTimeSignature = undoCode("tmsg");
constexpr uint32_t kQuantize = undoCode("qntz");
constexpr uint32_t kSplit = undoCode("splt");
constexpr uint32_t kJoin = undoCode("join");
}  // namespace undo

// The menu title of a command code ("音符の削除" for "del "); null when the
// code is not one of the fifteen.
const char* undoCommandTitle(uint32_t code);

// One recorded state. Notes and pitch lines are recorded in the serialized
// form, each followed by one byte telling which of PBS, PBW, PBY and PBM
// were there (bits 0 to 3).
struct UndoData {
  uint32_t cmd = 0;
  int32_t* indexes = nullptr;  // count-first, ascending note indexes; may be absent
  uint32_t size = 0;           // bytes in data
  uint8_t* data = nullptr;     // may be absent
  uint32_t param1 = 0;
  uint32_t param2 = 0;
  // Where the notes of a note list stood (count-first, ascending); replay
  // puts them back there, so notes that start on the same tick keep their
  // order. Absent: each goes before the first note starting where it does.
  int32_t* places = nullptr;
};

// Told after every change of the history: the codes the Undo and Redo
// menu items name (0: none) and whether the project differs from its saved
// state.
class UndoCallback {
 public:
  virtual ~UndoCallback() = default;
  virtual void operator()(uint32_t undoCode, uint32_t redoCode, bool modified) = 0;
};

class CUndoMan {
 public:
  static constexpr int32_t kMaxSteps = 512;

  explicit CUndoMan(CNoteMan* notes);
  ~CUndoMan();
  CUndoMan(const CUndoMan&) = delete;
  CUndoMan& operator=(const CUndoMan&) = delete;

  // A session over the selected notes.
  void beginSession(uint32_t cmd);
  // Records the selection as it is now and pushes the step; 1 when a step
  // was pushed, 0 when nothing was selected or nothing changed. A cmd
  // other than the session's aborts ("scmd == cmd").
  int32_t endSession(uint32_t cmd, UndoCallback* callback);
  // A session over the note at index ("tmsg": the time signatures).
  void beginSession(int32_t index, uint32_t cmd);
  int32_t endSession(int32_t index, uint32_t cmd, UndoCallback* callback);
  // Pushes the pending records as one step (see endSession).
  int32_t pushUndo(UndoCallback* callback);

  void undo(UndoCallback* callback);
  void redo(UndoCallback* callback);
  bool isCanUndo() const { return position_ > 0; }
  bool isCanRedo() const { return position_ < count_; }
  uint32_t getNextUndo() const;
  uint32_t getNextRedo() const;
  int32_t steps() const { return count_; }
  int32_t position() const { return position_; }

  // True when the position differs from the save point, or a change
  // outside the history was reported.
  bool getModified() const { return position_ != savePoint_ || otherModified_; }
  // Each true once after every change of position (two observers).
  bool getModify2();
  bool getModify3();
  void setSavePoint(UndoCallback* callback);
  void setOtherModified(UndoCallback* callback);
  // Discards the whole history.
  void clean(UndoCallback* callback);
  int32_t selectCount() const;

  // Replays one recorded state on the notes.
  void processData(const UndoData& data);

  // Bytes held by the history and the pending records.
  size_t memoryUsed() const;

 private:
  void recordStart(uint32_t cmd, const std::vector<int32_t>& indexes, bool single);
  void recordEnd(uint32_t cmd, const std::vector<int32_t>& indexes, bool single);
  void notify(UndoCallback* callback);
  std::vector<int32_t> selectedIndexes() const;

  CNoteMan* notes_;
  std::vector<UndoData> undoList_;
  std::vector<UndoData> redoList_;
  int32_t count_ = 0;
  int32_t position_ = 0;
  UndoData pendingUndo_;
  UndoData pendingRedo_;
  uint32_t sessionCmd_ = 0;
  int32_t sessionSelected_ = 0;
  int32_t savePoint_ = 0;
  int32_t mark2_ = 0;
  int32_t mark3_ = 0;
  bool otherModified_ = false;
};

// The UI part of the editor's notification: the two menu titles and the
// window's edited mark. The desktop editor, the command line and the tests
// each plug in their own.
class UndoView {
 public:
  virtual ~UndoView() = default;
  virtual void setMenuTitles(const std::string& undoTitle, const std::string& redoTitle) = 0;
  virtual void setEdited(bool modified) = 0;
};

// "<title>を元に戻す" for a known code, else "元に戻す"; and "<title>をやり直し"
// or "やり直し".
std::string undoMenuTitle(uint32_t code);
std::string redoMenuTitle(uint32_t code);
// The recovery file, ".temp.snt" in the per-user recovery folder.
std::string recoveryFilePath();

// The editor's notification: retitles the menu items and marks the window
// through `view` (may be null), and keeps the recovery copy at
// `recoveryPath` (empty: the recovery file): when modified, the whole
// project is written there (to a temporary name, then renamed, so that a
// crash leaves the old file or the new one, never a torn one) with the
// project's path beside it; when not, it is removed.
void undo_callback(CNoteMan& notes, UndoView* view, uint32_t undoCode, uint32_t redoCode, bool modified,
                   const std::string& recoveryPath = std::string());

// undo_callback as an UndoCallback. With `keepRecovery` off the recovery
// file is left alone (a command that must not touch another session's).
class CUndoNotifier : public UndoCallback {
 public:
  CUndoNotifier(CNoteMan& notes, UndoView* view, bool keepRecovery = true)
      : notes_(notes), view_(view), keepRecovery_(keepRecovery) {}
  void operator()(uint32_t undoCode, uint32_t redoCode, bool modified) override;
  void setView(UndoView* view) { view_ = view; }
  void setKeepRecovery(bool keep) { keepRecovery_ = keep; }
  // Where the copy is kept (empty: the recovery file).
  void setRecoveryPath(const std::string& path) { recoveryPath_ = path; }
  const std::string& recoveryPath() const { return recoveryPath_; }

 private:
  CNoteMan& notes_;
  UndoView* view_;
  bool keepRecovery_;
  std::string recoveryPath_;
};

// Writes the project as a recovery copy at `path` (the 2.0 form, so that
// nothing is lost), through a temporary file renamed over it. False on
// failure (the old file stays).
bool writeRecoveryFile(CNoteMan& notes, const std::string& path);
