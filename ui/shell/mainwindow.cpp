#include "ui/shell/mainwindow.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDialog>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QDir>
#include <QDockWidget>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QFrame>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressDialog>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QStatusBar>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QToolBar>
#include <QVBoxLayout>
#include <algorithm>
#include <vector>

#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "midi/midiman.h"
#include "midi/musicxml.h"
#include "support/multibyte.h"
#include "support/userdirs.h"
#include "voicebank/kana.h"
#include "ui/shell/bankdialogs.h"
#include "ui/shell/bankeditor.h"
#include "ui/shell/dialogbuttons.h"
#include "ui/shell/document.h"
#include "ui/shell/notedialogs.h"
#include "ui/shell/player.h"
#include "ui/shell/preferences.h"
#include "ui/shell/renderjob.h"
#include "ui/shell/texts.h"
#include "ui/views/pianoroll.h"
#include "ui/views/rolleditor.h"
#include "ui/views/timescale.h"
#include "ui/views/valuepane.h"

namespace {

constexpr int kRecentFiles = 10;
constexpr int kSingerHistory = 10;

struct GridChoice {
  const char* label;
  int ticks;
};
const GridChoice kGrids[] = {{"1/4", 480},         {"1/8", 240}, {"1/8 triplet", 160}, {"1/16", 120},
                             {"1/16 triplet", 80}, {"1/32", 60}, {"1/64", 30}};

bool isScoreFile(const QString& path) {
  const QString suffix = QFileInfo(path).suffix().toLower();
  return suffix == "musicxml" || suffix == "xml" || suffix == "mxl";
}

QString clock(double ms) {
  const int tenths = static_cast<int>(std::max(0.0, ms) / 100.0);
  return QString("%1:%2.%3").arg(tenths / 600).arg(tenths / 10 % 60, 2, 10, QChar('0')).arg(tenths % 10);
}

}  // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), document_(new EditorDocument(this)), editor_(new RollEditor(document_, this)) {
  setAttribute(Qt::WA_DeleteOnClose);
  auto* central = new QWidget(this);
  auto* column = new QVBoxLayout(central);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(0);
  buildBankBanner();
  column->addWidget(bankBanner_);
  column->addWidget(editor_, 1);
  setCentralWidget(central);
  buildMenus();
  buildToolBar();
  positionLabel_ = new QLabel(this);
  statusBar()->addPermanentWidget(positionLabel_);

  connect(document_, &EditorDocument::undoTitlesChanged, this, [this] { updateActions(); });
  connect(document_, &EditorDocument::modifiedChanged, this, [this](bool modified) { setWindowModified(modified); });
  connect(document_, &EditorDocument::pathChanged, this, &MainWindow::updateTitle);
  connect(document_, &EditorDocument::notice, this, [this](const QString& text) { showMessage(text, true); });
  connect(document_, &EditorDocument::changed, this, &MainWindow::updateActions);
  connect(document_, &EditorDocument::changed, this, &MainWindow::updateBankBanner);
  // The note list never changes while a render runs: an edit stops playback first.
  connect(document_, &EditorDocument::editStarting, this, [this] {
    if (Player::instance().document() == document_) Player::instance().stop();
  });
  Player& player = Player::instance();
  connect(&player, &Player::positionChanged, this,
          [this](int64_t tick, int singing, int64_t renderedFrom, int64_t renderedTo) {
            if (Player::instance().document() != document_ && tick >= 0) return;
            editor_->showPlayback(tick, singing, renderedFrom, renderedTo);
            if (tick >= 0) positionLabel_->setText(clock(document_->notes().Ticks2MSec(tick)));
          });
  connect(&player, &Player::stateChanged, this, &MainWindow::updateActions);
  connect(editor_->roll(), &PianoRoll::propertiesRequested, this, &MainWindow::notePropertiesDialog);
  connect(editor_->roll(), &PianoRoll::detailsRequested, this, &MainWindow::noteDetailDialog);
  connect(editor_->roll(), &PianoRoll::auditionWanted, this, &MainWindow::audition);
  connect(editor_->roll(), &PianoRoll::cursorMoved, this,
          [this](int64_t tick) { positionLabel_->setText(clock(document_->notes().Ticks2MSec(tick))); });

  buildLayerPanel();
  restoreSettings();
  applyShortcuts();
  updateTitle();
  updateActions();
}

MainWindow::~MainWindow() {
  if (Player::instance().document() == document_) Player::instance().stop();
}

QAction* MainWindow::makeAction(const QString& name, const QString& text, const QKeySequence& key,
                                void (MainWindow::*slot)()) {
  auto* act = new QAction(text, this);
  act->setObjectName(name);
  if (!key.isEmpty()) act->setShortcut(key);
  if (slot != nullptr) connect(act, &QAction::triggered, this, slot);
  addAction(act);
  return act;
}

QAction* MainWindow::action(const QString& name) const { return findChild<QAction*>(name); }

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(tr("&File"));
  file->addAction(makeAction("new", tr("&New"), QKeySequence::New, &MainWindow::newProject));
  file->addAction(makeAction("open", tr("&Open…"), QKeySequence::Open, &MainWindow::openDialog));
  recentMenu_ = file->addMenu(tr("Open &Recent"));
  file->addSeparator();
  file->addAction(makeAction("save", tr("&Save"), QKeySequence::Save, nullptr));
  connect(action("save"), &QAction::triggered, this, [this] { save(); });
  file->addAction(
      makeAction("saveAs", tr("Save &As…"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), &MainWindow::saveAsDialog));
  file->addAction(
      makeAction("render", tr("&Render to WAV…"), QKeySequence(Qt::CTRL | Qt::Key_R), &MainWindow::renderDialog));
  file->addAction(makeAction("renderSelection", tr("Render &Selection to WAV…"),
                             QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R), &MainWindow::renderSelectionDialog));
  file->addSeparator();
  file->addAction(makeAction("addBacking", tr("Add &Backing Track…"), QKeySequence(), &MainWindow::addBackingDialog));
  file->addAction(makeAction("removeBacking", tr("Remove Backing Track"), QKeySequence(), nullptr));
  connect(action("removeBacking"), &QAction::triggered, this, [this] { document_->removeBackingTrack(); });
  file->addSeparator();
  file->addAction(makeAction("import", tr("&Import MusicXML, MIDI or VSQ…"), QKeySequence(), &MainWindow::importDialog));
  file->addAction(makeAction("export", tr("E&xport as VSQ, MIDI or MusicXML…"), QKeySequence(), &MainWindow::exportDialog));
  file->addSeparator();
  file->addAction(makeAction("quit", tr("&Quit"), QKeySequence::Quit, nullptr));
  connect(action("quit"), &QAction::triggered, this, &QWidget::close);

  QMenu* edit = menuBar()->addMenu(tr("&Edit"));
  edit->addAction(makeAction("undo", tr("Undo"), QKeySequence(Qt::CTRL | Qt::Key_Z), nullptr));
  connect(action("undo"), &QAction::triggered, document_, &EditorDocument::undo);
  edit->addAction(makeAction("redo", tr("Redo"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), nullptr));
  action("redo")->setShortcuts({QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), QKeySequence(Qt::CTRL | Qt::Key_Y)});
  connect(action("redo"), &QAction::triggered, document_, &EditorDocument::redo);
  edit->addSeparator();
  edit->addAction(makeAction("cut", tr("Cu&t"), QKeySequence::Cut, &MainWindow::cutNotes));
  edit->addAction(makeAction("copy", tr("&Copy"), QKeySequence::Copy, &MainWindow::copyNotes));
  edit->addAction(makeAction("paste", tr("&Paste at Cursor"), QKeySequence::Paste, &MainWindow::pasteNotes));
  edit->addAction(makeAction("delete", tr("&Delete"), QKeySequence(Qt::Key_Delete), &MainWindow::deleteNotes));
  action("delete")->setShortcuts({QKeySequence(Qt::Key_Delete), QKeySequence(Qt::Key_Backspace)});
  edit->addAction(makeAction("selectAll", tr("Select &All"), QKeySequence::SelectAll, &MainWindow::selectAll));
  edit->addSeparator();
  edit->addAction(makeAction("lyrics", tr("&Lyrics…"), QKeySequence(Qt::CTRL | Qt::Key_L), &MainWindow::lyricsDialog));
  edit->addAction(
      makeAction("transposeUp", tr("Transpose &Up"), QKeySequence(Qt::CTRL | Qt::Key_Up), &MainWindow::transposeUp));
  edit->addAction(makeAction("transposeDown", tr("Transpose Do&wn"), QKeySequence(Qt::CTRL | Qt::Key_Down),
                             &MainWindow::transposeDown));
  edit->addAction(makeAction("quantize", tr("&Quantize to Grid"), QKeySequence(Qt::Key_Q), &MainWindow::quantize));
  edit->addSeparator();
  edit->addAction(makeAction("noteProperties", tr("Note &Properties…"), QKeySequence(Qt::CTRL | Qt::Key_E),
                             &MainWindow::notePropertiesDialog));
  edit->addAction(
      makeAction("noteDetails", tr("Note D&etails…"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_E), nullptr));
  connect(action("noteDetails"), &QAction::triggered, this,
          [this] { noteDetailDialog(document_->notes().topOfSelection()); });
  edit->addAction(
      makeAction("assistant", tr("Pitch and Vibrato &Assistant…"), QKeySequence(), &MainWindow::assistantDialog));
  edit->addSeparator();
  edit->addAction(makeAction("preferences", tr("Pr&eferences…"), QKeySequence(Qt::CTRL | Qt::Key_Comma),
                             &MainWindow::preferencesDialog));

  QMenu* view = menuBar()->addMenu(tr("&View"));
  // Ctrl+= is Ctrl++ without Shift on most keyboards: both zoom in, so the
  // vertical zooms keep off Shift.
  view->addAction(makeAction("zoomIn", tr("Zoom &In"), QKeySequence(Qt::CTRL | Qt::Key_Equal), nullptr));
  action("zoomIn")->setShortcuts({QKeySequence(Qt::CTRL | Qt::Key_Equal), QKeySequence(Qt::CTRL | Qt::Key_Plus)});
  connect(action("zoomIn"), &QAction::triggered, editor_, &RollEditor::zoomIn);
  view->addAction(makeAction("zoomOut", tr("Zoom &Out"), QKeySequence(Qt::CTRL | Qt::Key_Minus), nullptr));
  connect(action("zoomOut"), &QAction::triggered, editor_, &RollEditor::zoomOut);
  view->addAction(makeAction("zoomInVertical", tr("Zoom In &Vertically"),
                             QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Equal), nullptr));
  connect(action("zoomInVertical"), &QAction::triggered, editor_, &RollEditor::zoomInVertical);
  view->addAction(makeAction("zoomOutVertical", tr("Zoom Out V&ertically"),
                             QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Minus), nullptr));
  connect(action("zoomOutVertical"), &QAction::triggered, editor_, &RollEditor::zoomOutVertical);
  view->addAction(makeAction("fitSong", tr("&Fit Song"), QKeySequence(Qt::CTRL | Qt::Key_0), nullptr));
  connect(action("fitSong"), &QAction::triggered, editor_, &RollEditor::fitSong);
  QMenu* follow = view->addMenu(tr("&Follow Playback"));
  auto* followGroup = new QActionGroup(this);
  const std::pair<const char*, RollEditor::Follow> follows[] = {{"followPage", RollEditor::Follow::kPage},
                                                                {"followContinuous", RollEditor::Follow::kContinuous},
                                                                {"followOff", RollEditor::Follow::kOff}};
  const QString followTexts[] = {tr("By &Page"), tr("&Continuously"), tr("&Off")};
  for (int k = 0; k < 3; ++k) {
    QAction* act = makeAction(follows[k].first, followTexts[k], QKeySequence(), nullptr);
    act->setCheckable(true);
    act->setChecked(k == 0);
    followGroup->addAction(act);
    follow->addAction(act);
    const RollEditor::Follow mode = follows[k].second;
    connect(act, &QAction::triggered, this, [this, mode] { editor_->setFollow(mode); });
  }

  QMenu* play = menuBar()->addMenu(tr("&Play"));
  play->addAction(makeAction("play", tr("&Play/Pause"), QKeySequence(Qt::Key_Space), &MainWindow::playPause));
  play->addAction(makeAction("stop", tr("&Stop"), QKeySequence(Qt::CTRL | Qt::Key_Period), &MainWindow::stopPlay));
  play->addAction(makeAction("rewind", tr("&Rewind"), QKeySequence(Qt::Key_Home), &MainWindow::rewind));
  play->addAction(makeAction("playFromCursor", tr("Play from &Cursor"), QKeySequence(Qt::SHIFT | Qt::Key_Space),
                             &MainWindow::playFromCursor));
  play->addAction(makeAction("playSelection", tr("Play S&election"), QKeySequence(Qt::CTRL | Qt::Key_Space),
                             &MainWindow::playSelection));
  QAction* loop = makeAction("loop", tr("&Loop Selection"), QKeySequence(), nullptr);
  loop->setCheckable(true);
  connect(loop, &QAction::toggled, this, [](bool on) { Player::instance().setLooping(on); });
  play->addAction(loop);
  QAction* metronome = makeAction("metronome", tr("&Metronome"), QKeySequence(), nullptr);
  metronome->setCheckable(true);
  metronome->setChecked(QSettings().value("metronome", false).toBool());
  metronome->setToolTip(tr("A click on every beat while the song plays (never in a rendered file)"));
  Player::instance().setMetronome(metronome->isChecked());
  connect(metronome, &QAction::toggled, this, [](bool on) {
    QSettings().setValue("metronome", on);
    Player::instance().setMetronome(on);
  });
  play->addAction(metronome);
  QAction* hear = makeAction("audition", tr("&Hear Notes While Editing"), QKeySequence(), nullptr);
  hear->setCheckable(true);
  hear->setIconText(tr("Hear Notes"));
  hear->setChecked(QSettings().value("audition", true).toBool());
  hear->setToolTip(tr("Sing a note when it is drawn, clicked or dragged to another pitch"));
  connect(hear, &QAction::toggled, this, [](bool on) { QSettings().setValue("audition", on); });
  play->addAction(hear);

  view->addSeparator();
  QAction* lane = makeAction("showIntensity", tr("&Intensity Lane"), QKeySequence(Qt::CTRL | Qt::Key_I), nullptr);
  lane->setCheckable(true);
  view->addAction(lane);
  connect(lane, &QAction::toggled, this, [this](bool on) {
    editor_->valuePane()->setMode(on ? ValuePane::Mode::kIntensity : ValuePane::Mode::kEnvelope);
  });

  QMenu* project = menuBar()->addMenu(tr("P&roject"));
  project->addAction(makeAction("properties", tr("&Properties…"), QKeySequence(), &MainWindow::propertiesDialog));
  project->addAction(makeAction("singer", tr("S&inger…"), QKeySequence(), &MainWindow::singerDialog));
  singerMenu_ = project->addMenu(tr("&Recent Singers"));
  project->addAction(makeAction("entries", tr("Voice Bank &Entries…"), QKeySequence(), &MainWindow::entriesWindow));
  project->addAction(makeAction("prefixMap", tr("Prefix &Map…"), QKeySequence(), &MainWindow::prefixMapDialog));
  updateRecentMenu();
  updateSingerMenu();
}

void MainWindow::buildToolBar() {
  QToolBar* bar = addToolBar(tr("Tools"));
  bar->setObjectName("tools");
  bar->setMovable(false);
  toolGroup_ = new QActionGroup(this);
  const struct {
    const char* name;
    QString text;
    PianoRoll::Tool tool;
    Qt::Key key;
  } tools[] = {{"toolSelect", tr("Select"), PianoRoll::Tool::kSelect, Qt::Key_1},
               {"toolPen", tr("Pen"), PianoRoll::Tool::kPen, Qt::Key_2},
               {"toolEraser", tr("Eraser"), PianoRoll::Tool::kEraser, Qt::Key_3}};
  for (const auto& t : tools) {
    QAction* act = makeAction(t.name, t.text, QKeySequence(t.key), nullptr);
    act->setCheckable(true);
    act->setChecked(t.tool == PianoRoll::Tool::kSelect);
    toolGroup_->addAction(act);
    bar->addAction(act);
    const PianoRoll::Tool tool = t.tool;
    connect(act, &QAction::triggered, this, [this, tool] { editor_->roll()->setTool(tool); });
  }
  bar->addSeparator();
  bar->addWidget(new QLabel(tr(" Grid "), bar));
  gridBox_ = new QComboBox(bar);
  gridBox_->setObjectName("grid");
  for (const GridChoice& g : kGrids) gridBox_->addItem(g.label, g.ticks);
  gridBox_->setCurrentIndex(3);
  bar->addWidget(gridBox_);
  connect(gridBox_, &QComboBox::currentIndexChanged, this, [this](int) {
    const int ticks = gridBox_->currentData().toInt();
    editor_->timeScale()->setQuantize(ticks);
    document_->model().setQuontize(ticks);
  });
  bar->addWidget(new QLabel(tr(" Note "), bar));
  penBox_ = new QComboBox(bar);
  penBox_->setObjectName("penLength");
  for (const GridChoice& g : kGrids) penBox_->addItem(g.label, g.ticks);
  penBox_->insertItem(0, "1/2", 960);
  penBox_->setCurrentIndex(1);
  bar->addWidget(penBox_);
  connect(penBox_, &QComboBox::currentIndexChanged, this,
          [this](int) { document_->model().setNotelength(penBox_->currentData().toInt()); });
  document_->model().setNotelength(480);
  bar->addWidget(new QLabel(tr(" Layer "), bar));
  layerBox_ = new QComboBox(bar);
  layerBox_->setObjectName("layer");
  layerBox_->addItem(tr("All"), -1);
  for (int k = 0; k < ctonm2::kLayerCount; ++k) layerBox_->addItem(QString::number(k + 1), k);
  layerBox_->setToolTip(tr("The layer new notes go on and selections take notes from"));
  bar->addWidget(layerBox_);
  connect(layerBox_, &QComboBox::currentIndexChanged, this, [this](int) {
    document_->notes().setTargetLayer(layerBox_->currentData().toInt());
    document_->touch();
  });
  bar->addSeparator();
  bar->addAction(action("play"));
  bar->addAction(action("stop"));
  bar->addAction(action("rewind"));
  bar->addAction(action("audition"));
}

void MainWindow::updateTitle() {
  setWindowTitle(QString("%1[*] — TONA").arg(document_->displayName()));
  setWindowModified(document_->modified());
}

void MainWindow::updateActions() {
  CNoteMan& notes = document_->notes();
  const bool selection = notes.getSelectCount() > 0;
  action("removeBacking")->setEnabled(!document_->backing().empty());
  action("undo")->setText(document_->undoTitle());
  action("redo")->setText(document_->redoTitle());
  action("undo")->setEnabled(document_->history().isCanUndo());
  action("redo")->setEnabled(document_->history().isCanRedo());
  for (const char* name : {"cut", "copy", "delete", "transposeUp", "transposeDown", "quantize", "playSelection",
                           "noteProperties", "noteDetails", "assistant"}) {
    action(name)->setEnabled(selection);
  }
  Player& player = Player::instance();
  const bool playing = player.document() == document_ && !player.paused();
  action("play")->setText(playing ? tr("&Pause") : tr("&Play"));
  action("stop")->setEnabled(player.document() == document_);
}

void MainWindow::showMessage(const QString& text, bool error) {
  lastMessage_ = text;
  statusBar()->showMessage(text, error ? 0 : 5000);
}

// --- Files -------------------------------------------------------------------------

bool MainWindow::maybeSave() {
  if (!document_->modified()) return true;
  const auto answer = QMessageBox::question(
      this, tr("Save changes?"), tr("The project \"%1\" has changes. Save them?").arg(document_->displayName()),
      QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, QMessageBox::Save);
  if (answer == QMessageBox::Cancel) return false;
  if (answer == QMessageBox::Save) return save();
  return true;
}

bool MainWindow::isBlank() {
  return document_->path().isEmpty() && document_->engine().noteCount == 0 && !document_->modified();
}

MainWindow* MainWindow::windowFor() {
  if (isBlank()) return this;
  auto* window = new MainWindow;
  window->show();
  return window;
}

void MainWindow::newProject() { windowFor(); }

bool MainWindow::openProject(const QString& path, bool quiet) {
  if (!quiet && !maybeSave()) return false;
  QString error, warning;
  if (!document_->open(path, &error, &warning)) {
    showMessage(error, true);
    if (!quiet) QMessageBox::warning(this, tr("Cannot open"), error);
    return false;
  }
  rememberRecent(document_->path());
  if (!document_->voiceFolder().isEmpty() && document_->voiceEntryCount() > 0) rememberSinger(document_->voiceFolder());
  if (!warning.isEmpty()) showMessage(warning, true);
  editor_->roll()->setCursorTick(0);
  editor_->showSongStart();
  updateTitle();
  return true;
}

MainWindow* MainWindow::openElsewhere(const QString& path) {
  if (isImported(path)) return importSequence(path, -1, -1);
  // A project already open here is raised rather than read twice.
  const QString absolute = QFileInfo(path).absoluteFilePath();
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    auto* window = qobject_cast<MainWindow*>(widget);
    if (window != nullptr && window->document()->path() == absolute) {
      window->raise();
      window->activateWindow();
      return window;
    }
  }
  MainWindow* window = windowFor();
  if (window->openProject(absolute, false)) return window;
  if (window != this) window->close();
  return nullptr;
}

MainWindow* MainWindow::restoreRecovery(const QString& path) {
  MainWindow* window = windowFor();
  QString error;
  if (!window->document_->openRecovery(path, &error)) {
    showMessage(error, true);
    if (window != this) window->close();
    return nullptr;
  }
  window->editor_->showSongStart();
  window->updateTitle();
  return window;
}

void MainWindow::openDialog() {
  const QString dir = document_->path().isEmpty() ? QString() : QFileInfo(document_->path()).absolutePath();
  const QString path =
      QFileDialog::getOpenFileName(this, tr("Open Project"), dir, tr("Projects (*.snt);;All files (*)"));
  if (!path.isEmpty()) openElsewhere(path);
}

bool MainWindow::save() {
  if (document_->path().isEmpty()) {
    saveAsDialog();
    return !document_->modified();
  }
  return saveAs(document_->path(), document_->formVersion());
}

bool MainWindow::saveAs(const QString& path, int version) {
  QString error;
  if (!document_->save(path, version, &error)) {
    showMessage(error, true);
    QMessageBox::warning(this, tr("Cannot save"), error);
    return false;
  }
  rememberRecent(document_->path());
  if (version < 200 && !document_->backing().empty()) {
    showMessage(tr("Saved %1 in the 1.2 form, which cannot keep the backing track").arg(path), true);
  } else {
    showMessage(tr("Saved %1").arg(path));
  }
  updateTitle();
  return true;
}

void MainWindow::saveAsDialog() {
  const QString form2 = tr("Project, 2.0 form (*.snt)");
  const QString form12 = tr("Project, 1.2 form (*.snt)");
  QString filter = document_->formVersion() < 200 ? form12 : form2;
  QString path =
      QFileDialog::getSaveFileName(this, tr("Save Project As"), suggestedPath("snt"), form2 + ";;" + form12, &filter);
  if (path.isEmpty()) return;
  if (QFileInfo(path).suffix().isEmpty()) path += ".snt";
  saveAs(path, filter == form12 ? 120 : 200);
}

void MainWindow::renderDialog() {
  QString start = QString::fromUtf8(document_->engine().outfile);
  if (start.isEmpty()) start = suggestedPath("wav");
  QString path = QFileDialog::getSaveFileName(this, tr("Render to WAV"), start, tr("WAV files (*.wav)"));
  if (path.isEmpty()) return;
  if (QFileInfo(path).suffix().isEmpty()) path += ".wav";
  bool go = true;
  const bool withBacking = askMixBacking(&go);
  if (go) renderToWave(path, -1, -1, withBacking);
}

bool MainWindow::askMixBacking(bool* go) {
  *go = true;
  const BackingTrack& backing = document_->backing();
  if (backing.empty() || backing.muted) return false;
  const auto answer = QMessageBox::question(
      this, tr("Backing Track"),
      tr("Mix the backing track (%1) into the file?").arg(QFileInfo(QString::fromStdString(backing.path())).fileName()),
      QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, QMessageBox::Yes);
  *go = answer != QMessageBox::Cancel;
  return answer == QMessageBox::Yes;
}

void MainWindow::addBackingDialog() {
  const QString start = QFileInfo(suggestedPath("wav")).absolutePath();
  const QString path = QFileDialog::getOpenFileName(
      this, tr("Add Backing Track"), start,
      tr("Audio files (*.wav *.flac *.ogg *.oga *.aif *.aiff *.mp3 *.opus);;All files (*)"));
  if (path.isEmpty()) return;
  QString error;
  if (!document_->setBackingTrack(path, &error)) {
    showMessage(tr("Cannot add the backing track: %1").arg(error), true);
    return;
  }
  if (document_->formVersion() < 200) {
    showMessage(tr("The 1.2 form cannot keep a backing track: save in the 2.0 form to keep it"), true);
  } else {
    showMessage(tr("Backing track: %1").arg(QFileInfo(path).fileName()));
  }
}

void MainWindow::renderSelectionDialog() {
  CNoteMan& notes = document_->notes();
  const int32_t first = notes.topOfSelection(), last = notes.lastOfSelection();
  if (first < 0) {
    showMessage(tr("Select the notes to render first"), true);
    return;
  }
  const QFileInfo whole(suggestedPath("wav"));
  const QString start = whole.absolutePath() + "/" + whole.completeBaseName() + "-selection.wav";
  QString path = QFileDialog::getSaveFileName(this, tr("Render Selection to WAV"), start, tr("WAV files (*.wav)"));
  if (path.isEmpty()) return;
  if (QFileInfo(path).suffix().isEmpty()) path += ".wav";
  bool go = true;
  const bool withBacking = askMixBacking(&go);
  if (go) renderToWave(path, first, last, withBacking);
}

bool MainWindow::renderToWave(const QString& path, int32_t first, int32_t last, bool withBacking) {
  Player::instance().stop();
  RenderJob job;
  QString error;
  if (!job.start(document_, path, EditorPreferences::load().renderThreads, &error, first, last, withBacking)) {
    showMessage(error, true);
    return false;
  }
  QProgressDialog progress(tr("Rendering %1…").arg(QFileInfo(path).fileName()), tr("Cancel"), 0, 100, this);
  progress.setWindowModality(Qt::WindowModal);
  progress.setMinimumDuration(300);
  QTimer poll;
  poll.setInterval(50);
  QEventLoop loop;
  connect(&poll, &QTimer::timeout, &loop, [&] {
    const int total = std::max(job.total(), 1);
    progress.setValue(std::min(99, job.rendered() * 100 / total));
    if (job.done()) loop.quit();
  });
  connect(&progress, &QProgressDialog::canceled, &loop, [&] {
    job.cancel();
    loop.quit();
  });
  poll.start();
  if (!job.done()) loop.exec();
  poll.stop();
  progress.reset();
  if (!job.finish(&error)) {
    showMessage(error, true);
    return false;
  }
  showMessage(tr("Rendered %1").arg(path));
  return true;
}

// --- Editing -------------------------------------------------------------------------

void MainWindow::cutNotes() {
  document_->beginEdit(undo::kDelete);
  document_->notes().CutNotes();
  document_->endEdit(undo::kDelete);
}

void MainWindow::copyNotes() {
  const int count = document_->notes().CopyNotes();
  showMessage(tr("%n note(s) copied", nullptr, count));
}

void MainWindow::pasteNotes() {
  document_->beginEdit(undo::kAdd);
  document_->notes().PasteNotes(editor_->roll()->cursorTick());
  document_->endEdit(undo::kAdd);
}

void MainWindow::deleteNotes() {
  if (editor_->roll()->editingLyric()) return;
  document_->beginEdit(undo::kDelete);
  document_->notes().DeleteNotes();
  document_->endEdit(undo::kDelete);
}

void MainWindow::selectAll() {
  document_->notes().SelectAll();
  document_->touch();
}

void MainWindow::transpose(int dNote) {
  if (document_->notes().getSelectCount() == 0) return;
  document_->beginEdit(undo::kMove);
  document_->notes().addNoteNum(dNote, -1);
  document_->endEdit(undo::kMove);
}

void MainWindow::transposeUp() { transpose(1); }
void MainWindow::transposeDown() { transpose(-1); }

void MainWindow::quantize() {
  if (document_->notes().getSelectCount() == 0) return;
  document_->beginEdit(undo::kQuantize);
  document_->model().quantizeSelection(editor_->timeScale()->quantize());
  document_->endEdit(undo::kQuantize);
}

void MainWindow::lyricsDialog() {
  QDialog dialog(this);
  dialog.setWindowTitle(tr("Lyrics"));
  auto* layout = new QVBoxLayout(&dialog);
  layout->addWidget(new QLabel(tr("Type or paste the lyrics; they flow into the notes from the first selected note "
                                  "on, one syllable per note (spaces only separate)."),
                               &dialog));
  auto* text = new QPlainTextEdit(&dialog);
  text->setObjectName("lyricsText");
  layout->addWidget(text);
  auto* status = new QLabel(&dialog);
  status->setObjectName("lyricsStatus");
  layout->addWidget(status);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, &dialog);
  QPushButton* flow = buttons->addButton(tr("&Flow In"), QDialogButtonBox::ApplyRole);
  flow->setObjectName("flowIn");
  layout->addWidget(buttons);
  connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
  connect(flow, &QPushButton::clicked, &dialog, [&] {
    CNoteMan& notes = document_->notes();
    if (notes.getSelectCount() == 0) {
      const int first = notes.firstNote();
      if (first < 0) return;
      notes.addSelect(first, 0);
    }
    // One selected note: the lyrics flow on to the end of the song.
    if (notes.getSelectCount() == 1) {
      notes.addSelect(notes.topOfSelection(), 0);
      notes.addSelect(notes.lastNote(), 1);
    }
    // Romaji as people type it ("sakura") flows in a syllable a note, and
    // each syllable is written as the bank sings it.
    QByteArray utf8 = QByteArray::fromStdString(romajiTextToKana(text->toPlainText().toStdString()));
    std::vector<char> buffer(static_cast<size_t>(utf8.size()) * 3 + 16, '\0');
    memcpy(buffer.data(), utf8.constData(), static_cast<size_t>(utf8.size()));
    int32_t assigned = 0;
    const int32_t from = notes.topOfSelection();
    document_->beginEdit(undo::kLyric);
    notes.assignLyric(buffer.data(), buffer.size(), true, false, &assigned);
    ctonm2& engine = document_->engine();
    for (int32_t i = from, left = assigned; i >= 0 && i < engine.noteCount && left > 0; ++i) {
      NoteData& note = engine.notes[i];
      if (note.selected == 0 || ctonm2::is_r(note.Lyric)) continue;
      --left;
      const QByteArray sung = document_->bankForm(QByteArray(note.Lyric), note.NoteNum);
      if (sung != QByteArray(note.Lyric)) notes.setLyric(i, sung.constData());
    }
    document_->endEdit(undo::kLyric);
    // What is left comes back in Shift_JIS.
    CMultiByte converter;
    const char* left = converter.sjisToUtf8OrSame(buffer.data());
    text->setPlainText(QString::fromUtf8(left != nullptr ? left : ""));
    status->setText(tr("%n note(s) given a lyric", nullptr, assigned));
  });
  dialog.resize(420, 300);
  dialog.exec();
}

// --- Playback -------------------------------------------------------------------------

void MainWindow::playPause() {
  Player& player = Player::instance();
  if (player.document() == document_) {
    player.paused() ? player.resume() : player.pause();
    return;
  }
  playFromCursor();
}

void MainWindow::stopPlay() { Player::instance().stop(); }

void MainWindow::rewind() {
  Player& player = Player::instance();
  if (player.document() == document_) {
    player.rewind();
  } else {
    editor_->roll()->setCursorTick(0);
  }
}

void MainWindow::playFromCursor() {
  QString error;
  Player& player = Player::instance();
  if (!player.play(document_, editor_->roll()->cursorTick(), 0, false, &error)) showMessage(error, true);
}

void MainWindow::playSelection() {
  CNoteMan& notes = document_->notes();
  const int first = notes.topOfSelection(), last = notes.lastOfSelection();
  if (first < 0) return;
  const std::vector<int64_t>& starts = document_->starts();
  const int64_t from = starts[static_cast<size_t>(first)];
  const int64_t to = starts[static_cast<size_t>(last)] + notes.getNote(last)->Length;
  QString error;
  if (!Player::instance().play(document_, from, to, action("loop")->isChecked(), &error)) showMessage(error, true);
}

void MainWindow::audition(int index) {
  if (!action("audition")->isChecked()) return;
  Player& player = Player::instance();
  if (player.active()) return;  // a song playing or paused is not cut short
  CNoteMan& notes = document_->notes();
  const NoteData* note = notes.getNote(index);
  const std::vector<int64_t>& starts = document_->starts();
  if (note == nullptr || static_cast<size_t>(index) >= starts.size()) return;
  const int64_t start = starts[static_cast<size_t>(index)];
  const double lengthMs = notes.Ticks2MSec(start + note->Length) - notes.Ticks2MSec(start);
  ctonm2& engine = document_->engine();
  std::string why;
  const std::vector<int16_t> clip = audition_.sing(engine.voiceset, engine.voiceDir, *note, lengthMs, &why);
  QString error;
  if (clip.empty()) {
    if (engine.voiceset != nullptr) showMessage(coreText(why.c_str()));
  } else if (!player.playClip(clip, &error)) {
    showMessage(error, true);
  }
}

// --- Project -------------------------------------------------------------------------

void MainWindow::propertiesDialog() {
  ctonm2& engine = document_->engine();
  QDialog dialog(this);
  dialog.setWindowTitle(tr("Project Properties"));
  auto* form = new QFormLayout(&dialog);
  // The name the core gives a project that has none is no name to keep.
  const QString oldName = strcmp(engine.projectName, "(no title)") == 0 ? QString() : QString::fromUtf8(engine.projectName);
  auto* name = new QLineEdit(oldName, &dialog);
  name->setObjectName("projectName");
  name->setPlaceholderText(tr("(no title)"));
  auto* tempo = new QDoubleSpinBox(&dialog);
  tempo->setRange(10.0, 512.0);
  tempo->setDecimals(2);
  tempo->setValue(engine.tempo);
  auto* voice = new QLineEdit(QString::fromUtf8(engine.voiceDir), &dialog);
  auto* browse = new QPushButton(tr("Browse…"), &dialog);
  auto* voiceRow = new QHBoxLayout;
  voiceRow->addWidget(voice);
  voiceRow->addWidget(browse);
  connect(browse, &QPushButton::clicked, &dialog, [&] {
    const QString dir = QFileDialog::getExistingDirectory(&dialog, tr("Voice Bank Folder"), voice->text());
    if (!dir.isEmpty()) voice->setText(dir);
  });
  auto* output = new QLineEdit(QString::fromUtf8(engine.outfile), &dialog);
  auto* flags = new QLineEdit(QString::fromUtf8(engine.flags), &dialog);
  form->addRow(tr("Name"), name);
  form->addRow(tr("Tempo"), tempo);
  form->addRow(tr("Voice folder"), voiceRow);
  form->addRow(tr("Output file"), output);
  form->addRow(tr("Flags"), flags);
  auto* buttons = dialogButtons(&dialog);
  form->addRow(buttons);
  if (dialog.exec() != QDialog::Accepted) return;
  const bool changed = name->text() != oldName || static_cast<float>(tempo->value()) != engine.tempo ||
                       output->text() != QString::fromUtf8(engine.outfile) ||
                       flags->text() != QString::fromUtf8(engine.flags);
  if (changed) {
    Player::instance().stop();
    engine.set_projectName(name->text().toUtf8().constData());
    engine.tempo = static_cast<float>(tempo->value());
    engine.set_outfile(output->text().toUtf8().constData());
    engine.set_flags(flags->text().toUtf8().constData());
    document_->markOtherModified();
  }
  QString folder = voice->text();
  QString current = QString::fromUtf8(engine.voiceDir);
  if (!folder.endsWith('/')) folder += '/';
  if (folder != current && folder != "/") {
    QString error;
    if (!document_->setVoiceFolder(folder, &error)) {
      showMessage(error, true);
    } else {
      rememberSinger(document_->voiceFolder());
    }
  }
  updateTitle();
}

void MainWindow::chooseSinger() {
  const QString dir = QFileDialog::getExistingDirectory(this, tr("Voice Bank Folder"), document_->voiceFolder());
  if (dir.isEmpty()) return;
  QString error;
  if (!document_->setVoiceFolder(dir, &error)) {
    showMessage(error, true);
    return;
  }
  rememberSinger(document_->voiceFolder());
  showMessage(tr("Singing with %1 (%n entries)", nullptr, document_->voiceEntryCount()).arg(dir));
}

// --- Settings -------------------------------------------------------------------------

void rememberInList(const QString& key, const QString& value, int limit) {
  if (value.isEmpty()) return;
  QSettings settings;
  QStringList list = settings.value(key).toStringList();
  list.removeAll(value);
  list.prepend(value);
  while (list.size() > limit) list.removeLast();
  settings.setValue(key, list);
}

void MainWindow::rememberRecent(const QString& path) {
  rememberInList("recentFiles", path, kRecentFiles);
  updateRecentMenu();
}

void MainWindow::rememberSinger(const QString& folder) {
  rememberInList("singerHistory", folder, kSingerHistory);
  updateSingerMenu();
}

void MainWindow::updateRecentMenu() {
  recentMenu_->clear();
  const QStringList recent = QSettings().value("recentFiles").toStringList();
  for (const QString& path : recent) {
    QAction* act = recentMenu_->addAction(QFileInfo(path).fileName());
    act->setToolTip(path);
    connect(act, &QAction::triggered, this, [this, path] { openElsewhere(path); });
  }
  recentMenu_->setEnabled(!recent.isEmpty());
}

void MainWindow::updateSingerMenu() {
  singerMenu_->clear();
  QAction* choose = singerMenu_->addAction(tr("&Choose Voice Bank Folder…"));
  connect(choose, &QAction::triggered, this, &MainWindow::chooseSinger);
  const QStringList history = QSettings().value("singerHistory").toStringList();
  if (!history.isEmpty()) singerMenu_->addSeparator();
  for (const QString& folder : history) {
    QAction* act = singerMenu_->addAction(QFileInfo(folder.endsWith('/') ? folder.chopped(1) : folder).fileName());
    act->setToolTip(folder);
    connect(act, &QAction::triggered, this, [this, folder] {
      QString error;
      if (!document_->setVoiceFolder(folder, &error)) showMessage(error, true);
    });
  }
}

void MainWindow::restoreSettings() {
  QSettings settings;
  // The first time, most of the screen: the toolbar and a few measures need
  // the room. Afterwards, as the user left it.
  if (!restoreGeometry(settings.value("mainWindowFrame").toByteArray())) {
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
      const QRect free = screen->availableGeometry();
      resize(free.width() * 4 / 5, free.height() * 4 / 5);
      move(free.center() - rect().center());
    }
  }
  TimeScale* scale = editor_->timeScale();
  scale->setPixelsPerTick(settings.value("zoom/pixelsPerTick", scale->pixelsPerTick()).toDouble());
  scale->setRowHeight(settings.value("zoom/rowHeight", scale->rowHeight()).toInt());
  const int grid = gridBox_->findData(settings.value("grid", 120).toInt());
  if (grid >= 0) gridBox_->setCurrentIndex(grid);
  scale->setQuantize(gridBox_->currentData().toInt());
  document_->model().setQuontize(gridBox_->currentData().toInt());
  const int pen = penBox_->findData(settings.value("noteDefaults/length", 480).toInt());
  if (pen >= 0) penBox_->setCurrentIndex(pen);
  document_->model().setNotelength(penBox_->currentData().toInt());
}

void MainWindow::saveSettings() {
  QSettings settings;
  settings.setValue("mainWindowFrame", saveGeometry());
  settings.setValue("zoom/pixelsPerTick", editor_->timeScale()->pixelsPerTick());
  settings.setValue("zoom/rowHeight", editor_->timeScale()->rowHeight());
  settings.setValue("grid", gridBox_->currentData().toInt());
  settings.setValue("noteDefaults/length", penBox_->currentData().toInt());
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (!maybeSave()) {
    event->ignore();
    return;
  }
  // Still modified: the user discarded the edits, and their copy with them.
  if (document_->modified()) document_->discardRecovery();
  if (Player::instance().document() == document_) Player::instance().stop();
  saveSettings();
  event->accept();
}

// --- Notes as numbers, layers -------------------------------------------------------

void MainWindow::notePropertiesDialog() {
  if (document_->notes().getSelectCount() == 0) return;
  NotePropertiesDialog dialog(document_, this);
  dialog.exec();
}

void MainWindow::noteDetailDialog(int index) {
  if (document_->notes().getNote(index) == nullptr) return;
  NoteDetailDialog dialog(document_, index, this);
  dialog.exec();
}

void MainWindow::assistantDialog() {
  if (document_->notes().getSelectCount() == 0) return;
  AssistantDialog dialog(document_, this);
  dialog.exec();
}

void MainWindow::buildLayerPanel() {
  auto* dock = new QDockWidget(tr("Layers"), this);
  dock->setObjectName("layers");
  auto* panel = new QWidget(dock);
  auto* grid = new QGridLayout(panel);
  grid->addWidget(new QLabel(tr("Heard in playback and renders:"), panel), 0, 0, 1, 4);
  for (int k = 0; k < ctonm2::kLayerCount; ++k) {
    auto* box = new QCheckBox(tr("Layer %1").arg(k + 1), panel);
    box->setObjectName(QString("layerOn%1").arg(k));
    box->setChecked(document_->engine().layerEnabled[k] != 0);
    grid->addWidget(box, 1 + k / 4, k % 4);
    connect(box, &QCheckBox::toggled, this, [this, k](bool on) {
      Player::instance().stop();
      document_->engine().layerEnabled[k] = on ? 1 : 0;
      document_->touch();
    });
  }
  dock->setWidget(panel);
  addDockWidget(Qt::BottomDockWidgetArea, dock);
  dock->hide();
  QAction* toggle = dock->toggleViewAction();
  toggle->setObjectName("showLayers");
  toggle->setText(tr("&Layers Panel"));
  for (QAction* act : menuBar()->actions()) {
    if (act->menu() != nullptr && act->menu()->title() == tr("&View")) act->menu()->addAction(toggle);
  }
}

// --- Shortcuts, banks, preferences, exchange ---------------------------------------

void MainWindow::applyShortcuts() {
  QSettings settings;
  settings.beginGroup("shortcuts");
  for (const QString& name : settings.childKeys()) {
    QAction* act = action(name);
    if (act == nullptr) continue;
    // The defaults, some of two keys (Redo: Ctrl+Shift+Z and Ctrl+Y), as
    // the window made them.
    if (!act->property("defaultKeys").isValid()) {
      act->setProperty("defaultKeys", QKeySequence::listToString(act->shortcuts(), QKeySequence::PortableText));
    }
    const QList<QKeySequence> defaults =
        QKeySequence::listFromString(act->property("defaultKeys").toString(), QKeySequence::PortableText);
    const QKeySequence chosen(settings.value(name).toString(), QKeySequence::PortableText);
    if (!defaults.isEmpty() && chosen == defaults.first()) {
      act->setShortcuts(defaults);
    } else {
      act->setShortcut(chosen);
    }
  }
}

void MainWindow::preferencesDialog() {
  PreferencesDialog dialog(this);
  if (dialog.exec() != QDialog::Accepted) return;
  const EditorPreferences prefs = EditorPreferences::load();
  const int pen = penBox_->findData(prefs.noteLength);
  if (pen >= 0) penBox_->setCurrentIndex(pen);
  const int grid = gridBox_->findData(prefs.grid);
  if (grid >= 0) gridBox_->setCurrentIndex(grid);
}

static QString demoBankFolder() {
  // Installed beside the program, or in the source tree it was built from.
  const QStringList candidates = {QCoreApplication::applicationDirPath() + "/../share/tona/demo/voicebank",
                                  QStringLiteral(TONA_SOURCE_DIR "/demo/voicebank")};
  for (const QString& folder : candidates) {
    if (QFileInfo::exists(folder + "/oto.ini")) return QFileInfo(folder).canonicalFilePath() + "/";
  }
  return QString();
}

void MainWindow::buildBankBanner() {
  bankBanner_ = new QFrame(this);
  bankBanner_->setObjectName("bankBanner");
  bankBanner_->setFrameShape(QFrame::StyledPanel);
  bankBanner_->setStyleSheet("#bankBanner { background: #fff6d9; }");
  auto* row = new QHBoxLayout(bankBanner_);
  row->setContentsMargins(10, 6, 10, 6);
  bankText_ = new QLabel(bankBanner_);
  bankText_->setObjectName("bankText");
  bankText_->setWordWrap(true);
  bankText_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  row->addWidget(bankText_, 1);
  auto* choose = new QPushButton(tr("Choose a Singer…"), bankBanner_);
  choose->setObjectName("bankChoose");
  connect(choose, &QPushButton::clicked, this, &MainWindow::singerDialog);
  row->addWidget(choose);
  auto* demo = new QPushButton(tr("Sing with the Demo Bank"), bankBanner_);
  demo->setObjectName("bankDemo");
  demo->setVisible(!demoBankFolder().isEmpty());
  connect(demo, &QPushButton::clicked, this, [this] {
    QString error;
    const QString folder = demoBankFolder();
    if (document_->setVoiceFolder(folder, &error)) {
      rememberSinger(folder);
      showMessage(tr("Singing with %1").arg(folder));
    } else {
      showMessage(error, true);
    }
  });
  row->addWidget(demo);
  auto* open = new QPushButton(tr("Open the Voice Folder"), bankBanner_);
  open->setObjectName("bankFolder");
  connect(open, &QPushButton::clicked, this, [] {
    const std::string folder = userFolder(UserFolder::kVoice, true);
    QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(folder)));
  });
  row->addWidget(open);
  updateBankBanner();
}

void MainWindow::updateBankBanner() {
  const bool none = document_->voiceEntryCount() == 0;
  bankBanner_->setVisible(none);
  if (!none) return;
  const QString voices = QString::fromStdString(userFolder(UserFolder::kVoice));
  const QString named = document_->voiceFolder();
  const QString why = named.isEmpty() ? tr("No voice bank is chosen yet: the notes cannot sing.")
                                      : tr("No voice bank at %1: the notes cannot sing.").arg(named);
  bankText_->setText(why + " " + tr("Choose a singer, or put voice banks (folders with an oto.ini) in %1.").arg(voices));
}

void MainWindow::singerDialog() {
  SingerDialog dialog(document_, this);
  connect(&dialog, &SingerDialog::singerChanged, this, [this](const QString& folder) {
    rememberSinger(folder);
    showMessage(tr("Singing with %1").arg(folder));
  });
  dialog.exec();
}

void MainWindow::entriesWindow() {
  const QString folder = document_->voiceFolder();
  if (folder.isEmpty()) {
    singerDialog();
    return;
  }
  auto* editor = new BankEditor;
  QString error;
  if (!editor->open(folder, &error)) {
    delete editor;
    showMessage(error, true);
    return;
  }
  editor->show();
}

void MainWindow::prefixMapDialog() {
  if (document_->voiceEntryCount() == 0) {
    showMessage(tr("The project sings with no voice bank"), true);
    return;
  }
  PrefixMapDialog dialog(document_, this);
  dialog.exec();
}

bool MainWindow::isImported(const QString& path) {
  const QString suffix = QFileInfo(path).suffix().toLower();
  return suffix == "mid" || suffix == "midi" || suffix == "smf" || suffix == "vsq" || isScoreFile(path);
}

MainWindow* MainWindow::importSequence(const QString& path, int track, int channel, bool quiet) {
  const bool vsq = path.endsWith(".vsq", Qt::CaseInsensitive);
  const bool score = isScoreFile(path);
  CMIDIMan midi;
  CMusicXml xml;
  const QByteArray file = path.toLocal8Bit();
  if (!vsq && !score && track < 0) track = CMIDIMan::defaultTrack(midi.getTrackList(file.constData()));
  if (score && xml.load(file.constData()) && track < 0) track = xml.defaultPart();
  MainWindow* window = windowFor();
  EditorDocument* document = window->document();
  document->newProject();
  std::string signatures;
  const int32_t notes = score ? (xml.parts().empty() ? -1 : xml.importPart(track, 0, 1, &document->notes(), &signatures))
                        : vsq ? midi.importVSQFile(file.constData(), &document->notes())
                              : midi.importMIDIFile(file.constData(), track, channel, &document->notes(), &signatures);
  if (notes < 0) {
    const QString reason = QString::fromStdString(score ? xml.error() : midi.error());
    const QString error = tr("Cannot import %1: %2").arg(path, reason);
    document->newProject();
    window->showMessage(error, true);
    showMessage(error, true);
    if (window != this) window->close();
    if (!quiet) QMessageBox::warning(this, tr("Import"), error);
    return nullptr;
  }
  if (!signatures.empty()) document->scale().unserializeText(signatures.c_str());
  document->engine().set_projectName(QFileInfo(path).completeBaseName().toUtf8().constData());
  document->engine().set_charset("UTF-8");
  document->notes().synchronizeNotes();
  document->setSourcePath(QFileInfo(path).absoluteFilePath());
  document->markOtherModified();  // a new project, not saved yet
  window->editor()->showSongStart();
  window->updateTitle();
  window->showMessage(tr("Imported %n note(s) from %1", nullptr, notes).arg(QFileInfo(path).fileName()));
  return window;
}

void MainWindow::importDialog() {
  const QString path = QFileDialog::getOpenFileName(
      this, tr("Import"), QString(),
      tr("Scores and sequences (*.musicxml *.xml *.mxl *.mid *.midi *.smf *.vsq);;All files (*)"));
  if (path.isEmpty()) return;
  int track = -1, channel = -1;
  if (isScoreFile(path)) {
    // A score of several parts: the one to sing.
    CMusicXml score;
    if (!score.load(path.toLocal8Bit().constData())) {
      QMessageBox::warning(this, tr("Import"), tr("Cannot import %1: %2").arg(path, QString::fromStdString(score.error())));
      return;
    }
    if (score.parts().size() > 1) {
      QStringList names;
      for (const CMusicXml::Part& part : score.parts()) {
        names << tr("%1 (%n note(s)%2)", nullptr, part.notes)
                     .arg(QString::fromStdString(part.name), part.lyrics ? tr(", lyrics") : QString());
      }
      bool ok = false;
      const QString chosen =
          QInputDialog::getItem(this, tr("Import MusicXML"), tr("Part:"), names, score.defaultPart(), false, &ok);
      if (!ok) return;
      track = static_cast<int>(names.indexOf(chosen));
    }
  } else if (!path.endsWith(".vsq", Qt::CaseInsensitive)) {
    CMIDIMan midi;
    const QByteArray file = path.toLocal8Bit();
    const std::vector<std::string> tracks = midi.getTrackList(file.constData());
    if (tracks.empty()) {
      QMessageBox::warning(this, tr("Import"),
                           tr("Cannot import %1: %2").arg(path, QString::fromStdString(midi.error())));
      return;
    }
    QStringList names;
    for (const std::string& t : tracks) names << QString::fromStdString(t);
    bool ok = false;
    const QString chosen = QInputDialog::getItem(this, tr("Import MIDI"), tr("Track:"), names, 0, false, &ok);
    if (!ok) return;
    track = static_cast<int>(names.indexOf(chosen));
    QStringList channels = {tr("All channels")};
    for (const std::string& c : midi.getChannelList(file.constData(), track)) channels << QString::fromStdString(c);
    if (channels.size() > 2) {
      const QString pick = QInputDialog::getItem(this, tr("Import MIDI"), tr("Channel:"), channels, 0, false, &ok);
      if (!ok) return;
      // "chNN:(...)": the channel's number.
      channel = pick == channels.first() ? -1 : pick.mid(2, 2).toInt();
    }
  }
  importSequence(path, track, channel);
}

bool MainWindow::exportSequence(const QString& path) {
  CMIDIMan midi;
  const QByteArray file = path.toLocal8Bit();
  const bool vsq = path.endsWith(".vsq", Qt::CaseInsensitive);
  std::string error;
  const bool written = isScoreFile(path) ? CMusicXml::write(file.constData(), &document_->notes(), &error)
                       : vsq             ? midi.writeVSQFile(file.constData(), &document_->notes())
                                         : midi.writeSMFFile(file.constData(), &document_->notes());
  if (!written) {
    showMessage(tr("Cannot write %1").arg(path), true);
    return false;
  }
  showMessage(tr("Exported %1").arg(path));
  return true;
}

void MainWindow::exportDialog() {
  const QString vsq = tr("VSQ (*.vsq)"), smf = tr("Standard MIDI file (*.mid)"), xml = tr("MusicXML (*.musicxml)");
  const QString start = suggestedPath("export");
  QString filter = start.endsWith(".mid") ? smf : start.endsWith(".musicxml") ? xml : vsq;
  QString path = QFileDialog::getSaveFileName(this, tr("Export"), start, vsq + ";;" + smf + ";;" + xml, &filter);
  if (path.isEmpty()) return;
  if (QFileInfo(path).suffix().isEmpty()) path += filter == vsq ? ".vsq" : filter == smf ? ".mid" : ".musicxml";
  exportSequence(path);
}

QString MainWindow::suggestedPath(const QString& kind) {
  const QString source = document_->sourcePath();
  const QString suffix = QFileInfo(source).suffix().toLower();
  QString extension = kind;
  if (kind == "export") {
    extension = suffix == "mid" || suffix == "midi" || suffix == "smf"       ? "mid"
                : suffix == "musicxml" || suffix == "xml" || suffix == "mxl" ? "musicxml"
                                                                             : "vsq";
  }
  if (kind == "snt" && !document_->path().isEmpty()) return document_->path();
  const QString base = source.isEmpty() ? document_->displayName() : QFileInfo(source).completeBaseName();
  const QString folder = source.isEmpty() ? QDir::currentPath() : QFileInfo(source).absolutePath();
  return QDir(folder).filePath(base + "." + extension);
}
