// MainWindow: one project in one window, with its menus, tool bar and
// status bar around the roll editor.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <cstdint>

#include "render/audition.h"

class EditorDocument;
class QAction;
class QFrame;
class QActionGroup;
class QComboBox;
class QLabel;
class QMenu;
class RollEditor;

// Puts `value` first in the settings list `key` (each value once, at most
// `limit` of them): the recent files, the singer history.
void rememberInList(const QString& key, const QString& value, int limit);

class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  explicit MainWindow(QWidget* parent = nullptr);
  ~MainWindow() override;

  EditorDocument* document() const { return document_; }
  RollEditor* editor() const { return editor_; }

  // Opens a project into this window (asking to save a modified one
  // first unless `quiet`). False with a message shown when it fails.
  bool openProject(const QString& path, bool quiet = false);
  // Opens a project in a window of its own: this one while it holds a
  // blank project, else a new one; a project open already is raised.
  // The window that shows it, or null when it could not be opened.
  MainWindow* openElsewhere(const QString& path);
  // Loads a recovery copy as an unsaved, modified project into this
  // window while it is blank, else into a new one; that window, or null
  // with a message shown.
  MainWindow* restoreRecovery(const QString& path);
  // Saves to the project's own path, or asks for one.
  bool save();
  bool saveAs(const QString& path, int version);
  // Renders to a WAV file with a progress dialog; false when stopped or failed.
  // Renders notes first..last (-1: the whole song) to a WAV file.
  bool renderToWave(const QString& path, int32_t first = -1, int32_t last = -1, bool withBacking = false);

  // Actions by name, for the tests and the shortcuts ("undo", "play", ...).
  QAction* action(const QString& name) const;
  // The shortcuts the user chose in the preferences, over the defaults.
  void applyShortcuts();
  // Reads a MIDI file's track (-1: the first with lyrics) and channel (-1:
  // all), or a VSQ file's voice tracks, as a new unsaved project in this
  // window (which must be blank) or a new one. False with a message.
  // Returns the window it went to, or null.
  // With `quiet`, a failure is only in lastMessage(), no message box.
  MainWindow* importSequence(const QString& path, int track, int channel, bool quiet = false);
  // Whether a file is imported rather than opened (a score or a sequence).
  static bool isImported(const QString& path);
  // Writes the project's notes as a VSQ or a standard MIDI file, by extension.
  bool exportSequence(const QString& path);

  // Where the Save As ("snt") and Export ("export") dialogs start: the
  // project's own path, or beside the file its notes came from (an
  // imported sequence, a recovered project), exported in the form it was
  // imported from.
  QString suggestedPath(const QString& kind);

  // The last error or notice shown in the status bar.
  QString lastMessage() const { return lastMessage_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  QAction* makeAction(const QString& name, const QString& text, const QKeySequence& key, void (MainWindow::*slot)());
  void buildMenus();
  void buildToolBar();
  void updateTitle();
  void updateActions();
  void updateRecentMenu();
  void updateSingerMenu();
  void rememberRecent(const QString& path);
  void rememberSinger(const QString& folder);
  void restoreSettings();
  void saveSettings();
  // False when the user cancelled.
  bool maybeSave();
  void showMessage(const QString& text, bool error = false);

  // One window per project: New opens a new window unless this one is blank.
  void newProject();
  bool isBlank();
  MainWindow* windowFor();
  void openDialog();
  void saveAsDialog();
  void renderDialog();
  void renderSelectionDialog();
  // Whether a render mixes the backing track in: asked when there is one
  // to hear. False in *go when the user cancelled.
  bool askMixBacking(bool* go);
  void addBackingDialog();
  void cutNotes();
  void copyNotes();
  void pasteNotes();
  void deleteNotes();
  void selectAll();
  void lyricsDialog();
  void transposeUp();
  void transposeDown();
  void quantize();
  void playPause();
  void stopPlay();
  void rewind();
  void playFromCursor();
  void playSelection();
  void propertiesDialog();
  void notePropertiesDialog();
  void noteDetailDialog(int index);
  void assistantDialog();
  void buildLayerPanel();
  // The word in the window while the project has no voice bank to sing
  // with: why, and the ways to one.
  void buildBankBanner();
  void updateBankBanner();
  void importDialog();
  void exportDialog();
  void preferencesDialog();
  void singerDialog();
  void prefixMapDialog();
  void entriesWindow();
  void chooseSinger();
  void transpose(int dNote);
  // Plays note `index` alone when auditioning is on and nothing else plays.
  void audition(int index);

  EditorDocument* document_;
  RollEditor* editor_;
  QMenu* recentMenu_ = nullptr;
  QMenu* singerMenu_ = nullptr;
  QComboBox* gridBox_ = nullptr;
  QComboBox* penBox_ = nullptr;
  QComboBox* layerBox_ = nullptr;
  QActionGroup* toolGroup_ = nullptr;
  QLabel* positionLabel_ = nullptr;
  QFrame* bankBanner_ = nullptr;
  QLabel* bankText_ = nullptr;
  QString lastMessage_;
  Audition audition_;
};
