#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QFrame>
#include <QTest>
#include <sys/stat.h>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "midi/midiman.h"
#include "playback/audioout.h"
#include "render/wavefile.h"
#include "support/userdirs.h"
#include "tests/render/vowel_note.h"
#include "tests/testutil.h"
#include "tests/ui/editor_fixture.h"
#include "tests/voicebank/bank.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/player.h"
#include "ui/shell/preferences.h"
#include "ui/shell/startup.h"
#include "ui/shell/texts.h"
#include "ui/views/backinglane.h"
#include "ui/views/pianoroll.h"
#include "ui/views/rolleditor.h"
#include "ui/views/timescale.h"

using namespace editortest;

namespace {

TEST_F(Editor, PenMakesSnappedNotesAndUndoRedoGoThroughTheMenu) {
  window_->action("toolPen")->trigger();
  EXPECT_EQ(title("undo"), "元に戻す");
  click(at(500, 70));   // snapped down to 480
  click(at(1000, 72));  // to 960
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{480, 480, "あ", 70}, {960, 480, "あ", 72}}));
  EXPECT_EQ(title("undo"), "音符の追加を元に戻す");
  EXPECT_FALSE(window_->action("redo")->isEnabled());
  EXPECT_TRUE(window_->isWindowModified());

  trigger("undo");
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{480, 480, "あ", 70}}));
  EXPECT_EQ(title("redo"), "音符の追加をやり直し");
  trigger("undo");
  EXPECT_TRUE(soundingNotes(doc().engine()).empty());
  EXPECT_EQ(title("undo"), "元に戻す");
  EXPECT_FALSE(window_->isWindowModified());  // back at the saved state
  trigger("redo");
  trigger("redo");
  EXPECT_EQ(soundingNotes(doc().engine()).size(), 2u);

  // Dragging with the pen draws a longer note, snapped to the grid.
  drag(at(2400, 65), at(2400 + 1100, 65));
  EXPECT_EQ(soundingNotes(doc().engine()).back(), (Read{2400, 1080, "あ", 65}));
}

TEST_F(Editor, RubberBandSelectsAndADragMovesTheSelectionSnapped) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 72}, {480, 480, "ら", 74}});
  // A band over the first two boxes.
  drag(at(300, 73) - QPoint(0, 8), at(1100, 69) + QPoint(0, 8));
  EXPECT_TRUE(doc().notes().isSelected(0));
  EXPECT_TRUE(doc().notes().isSelected(1));
  EXPECT_FALSE(doc().notes().isSelected(2));

  // Drag the second box right by about 1.4 steps of 120 and up two rows:
  // both selected notes go one step right and two up.
  const QPoint from = centreOf(1);
  drag(from, from + QPoint(static_cast<int>(170 * scale_->pixelsPerTick()), -2 * scale_->rowHeight()));
  EXPECT_EQ(soundingNotes(doc().engine()),
            (std::vector<Read>{{600, 480, "さ", 72}, {1080, 480, "く", 74}, {1440, 480, "ら", 74}}));
  // Past a neighbour: the notes are put back in time order.
  drag(centreOf(1), centreOf(1) + QPoint(static_cast<int>(600 * scale_->pixelsPerTick()), 0));
  EXPECT_EQ(soundingNotes(doc().engine()),
            (std::vector<Read>{{1200, 480, "さ", 72}, {1440, 480, "ら", 74}, {1680, 480, "く", 74}}));
  trigger("undo");
  EXPECT_EQ(title("undo"), "音符の移動を元に戻す");
  trigger("undo");
  EXPECT_EQ(soundingNotes(doc().engine()),
            (std::vector<Read>{{480, 480, "さ", 70}, {960, 480, "く", 72}, {1440, 480, "ら", 74}}));

  // Esc in the middle of a drag puts everything back and records nothing.
  const int steps = doc().history().steps();
  const QPoint start = centreOf(0);
  drag(start, start + QPoint(200, 0), Qt::NoModifier, false);
  EXPECT_NE(soundingNotes(doc().engine())[0].start, 480);  // it follows the mouse
  QTest::keyClick(roll_, Qt::Key_Escape);
  QTest::mouseRelease(roll_, Qt::LeftButton, Qt::NoModifier, start + QPoint(200, 0));
  EXPECT_EQ(soundingNotes(doc().engine()),
            (std::vector<Read>{{480, 480, "さ", 70}, {960, 480, "く", 72}, {1440, 480, "ら", 74}}));
  EXPECT_EQ(doc().history().steps(), steps);
}

TEST_F(Editor, ClicksSelectOneARangeOrToggleAndTheRightEdgeResizes) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 70}, {480, 480, "ら", 70}});
  click(centreOf(0));
  click(centreOf(2), Qt::ShiftModifier);
  EXPECT_EQ(doc().notes().getSelectCount(), 3);
  click(centreOf(1), Qt::ControlModifier);
  EXPECT_FALSE(doc().notes().isSelected(1));
  EXPECT_EQ(doc().notes().getSelectCount(), 2);
  click(centreOf(1));
  EXPECT_EQ(doc().notes().getSelectCount(), 1);

  // The right edge of the third box, dragged by 310 ticks: its end goes to
  // the nearest grid line, 360 ticks on.
  const QRectF box = roll_->noteRect(2);
  const QPoint edge(static_cast<int>(box.right()) - 2, static_cast<int>(box.center().y()));
  drag(edge, edge + QPoint(static_cast<int>(310 * scale_->pixelsPerTick()), 0));
  EXPECT_EQ(soundingNotes(doc().engine())[2], (Read{1440, 840, "ら", 70}));
  EXPECT_EQ(title("undo"), "音符の変更を元に戻す");  // whole notes: the pitch line stretches along
}

TEST_F(Editor, LyricsAreTypedInPlaceAndTabMovesToTheNextNote) {
  open({{480, 480, "あ", 70}, {480, 480, "あ", 70}, {480, 480, "あ", 70}});
  QTest::mouseDClick(roll_, Qt::LeftButton, Qt::NoModifier, centreOf(0));
  ASSERT_TRUE(roll_->editingLyric());
  auto* editor = roll_->findChild<QLineEdit*>();
  ASSERT_NE(editor, nullptr);
  editor->setText("か");  // as an input method commits it
  QTest::keyClick(editor, Qt::Key_Tab);
  ASSERT_TRUE(roll_->editingLyric());
  editor->setText("き");
  QTest::keyClick(editor, Qt::Key_Return);
  EXPECT_FALSE(roll_->editingLyric());
  const std::vector<Read> notes = soundingNotes(doc().engine());
  EXPECT_EQ(notes[0].lyric, "か");
  EXPECT_EQ(notes[1].lyric, "き");
  EXPECT_EQ(notes[2].lyric, "あ");
  EXPECT_EQ(title("undo"), "歌詞の変更を元に戻す");
  EXPECT_EQ(doc().history().steps(), 2);  // one step per note

  // Esc leaves the lyric as it was.
  click(centreOf(2));
  QTest::keyClick(roll_, Qt::Key_Return);
  roll_->findChild<QLineEdit*>()->setText("く");
  QTest::keyClick(roll_->findChild<QLineEdit*>(), Qt::Key_Escape);
  EXPECT_EQ(soundingNotes(doc().engine())[2].lyric, "あ");
}

TEST_F(Editor, RomajiTypedForAKanaBankBecomesKanaAndSpaceMovesOn) {
  TestBank bank;
  // "sa" also names a sample file: still written as the bank's alias.
  writeVowelBank(bank, 0.6, "a.wav=か,30,60,-400,40,10\nsa.wav=さ,30,60,-400,40,10\n");
  bank.write("sa.wav", readFile(bank.folder() + "a.wav"));
  open({{480, 480, "あ", 60}, {480, 480, "あ", 62}, {480, 480, "あ", 64}}, bank.folder());
  QTest::mouseDClick(roll_, Qt::LeftButton, Qt::NoModifier, centreOf(0));
  auto* editor = roll_->findChild<QLineEdit*>();
  ASSERT_NE(editor, nullptr);
  editor->setText("ka");
  QTest::keyClick(editor, Qt::Key_Space);
  ASSERT_TRUE(roll_->editingLyric());  // on the next note
  editor->setText("sa");
  QTest::keyClick(editor, Qt::Key_Space);
  editor->setText("zu");  // no such entry either way: kept as typed
  QTest::keyClick(editor, Qt::Key_Return);
  const std::vector<Read> notes = soundingNotes(doc().engine());
  EXPECT_EQ(notes[0].lyric, "か");
  EXPECT_EQ(notes[1].lyric, "さ");
  EXPECT_EQ(notes[2].lyric, "zu");
}

TEST_F(Editor, LyricsFlowInFromTheDialogAndShowWhatIsLeft) {
  open({{480, 480, "あ", 70}, {480, 480, "あ", 70}, {480, 480, "あ", 70}});
  click(centreOf(1));
  QString left, status;
  whenModal([&](QWidget* dialog) {
    dialog->findChild<QPlainTextEdit*>("lyricsText")->setPlainText("さ くら さくら");
    dialog->findChild<QPushButton*>("flowIn")->click();
    left = dialog->findChild<QPlainTextEdit*>("lyricsText")->toPlainText();
    status = dialog->findChild<QLabel*>("lyricsStatus")->text();
    static_cast<QDialog*>(dialog)->reject();
  });
  trigger("lyrics");
  const std::vector<Read> notes = soundingNotes(doc().engine());
  EXPECT_EQ(notes[0].lyric, "あ");
  EXPECT_EQ(notes[1].lyric, "さ");
  EXPECT_EQ(notes[2].lyric, "く");
  EXPECT_EQ(left.trimmed(), "ら さくら");
  EXPECT_EQ(status, "2 note(s) given a lyric");
  EXPECT_EQ(title("undo"), "歌詞の変更を元に戻す");
  trigger("undo");
  EXPECT_EQ(soundingNotes(doc().engine())[1].lyric, "あ");
}

// Romaji typed into Edit > Lyrics… flows in a syllable a note, written as
// the bank sings it: kana for a kana bank, romaji for a romaji bank.
TEST_F(Editor, RomajiLyricsFlowInAsTheBankSingsThem) {
  for (bool kana : {true, false}) {
    SCOPED_TRACE(kana);
    TestBank bank;
    writeVowelBank(bank, 0.6, kana ? "a.wav=か,30,60,-400,40,10\na.wav=さ,30,60,-400,40,10\n"
                                   : "a.wav=ka,30,60,-400,40,10\na.wav=sa,30,60,-400,40,10\n");
    open({{480, 480, "あ", 60}, {480, 480, "あ", 62}, {480, 480, "あ", 64}, {480, 480, "あ", 65}}, bank.folder());
    click(centreOf(0));
    whenModal([&](QWidget* dialog) {
      dialog->findChild<QPlainTextEdit*>("lyricsText")->setPlainText("kasa Sa");
      dialog->findChild<QPushButton*>("flowIn")->click();
      static_cast<QDialog*>(dialog)->reject();
    });
    trigger("lyrics");
    std::vector<std::string> lyrics;
    for (const Read& note : soundingNotes(doc().engine())) lyrics.push_back(note.lyric);
    EXPECT_EQ(lyrics, kana ? std::vector<std::string>({"か", "さ", "さ", "あ"})
                           : std::vector<std::string>({"ka", "sa", "sa", "あ"}));
  }
}

TEST_F(Editor, TransposeCutPasteAndKeysEditTheSelection) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 72}});
  click(centreOf(0));
  trigger("transposeUp");
  trigger("transposeUp");
  EXPECT_EQ(soundingNotes(doc().engine())[0].noteNum, 72);
  QTest::keyClick(roll_, Qt::Key_Down);
  EXPECT_EQ(soundingNotes(doc().engine())[0].noteNum, 71);
  QTest::keyClick(roll_, Qt::Key_Right);
  EXPECT_EQ(soundingNotes(doc().engine())[0].start, 600);

  trigger("cut");
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{960, 480, "く", 72}}));
  EXPECT_EQ(title("undo"), "音符の削除を元に戻す");
  roll_->setCursorTick(1920);
  trigger("paste");
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{960, 480, "く", 72}, {1920, 480, "さ", 71}}));
  EXPECT_EQ(title("undo"), "音符の追加を元に戻す");
  trigger("delete");
  EXPECT_EQ(soundingNotes(doc().engine()).size(), 1u);
  trigger("undo");
  trigger("undo");
  trigger("undo");
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{600, 480, "さ", 71}, {960, 480, "く", 72}}));

  // The eraser takes the note it touches.
  window_->action("toolEraser")->trigger();
  click(centreOf(1));
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{600, 480, "さ", 71}}));
}

TEST_F(Editor, SavesInBothFormsAndTheCoreReadsTheSameSong) {
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  click(at(1200, 67));
  roll_->editLyric(1);
  roll_->findChild<QLineEdit*>()->setText("ら");
  QTest::keyClick(roll_->findChild<QLineEdit*>(), Qt::Key_Return);
  const std::vector<Read> written = soundingNotes(doc().engine());
  for (int version : {200, 120}) {
    SCOPED_TRACE(version);
    const std::string path = dir_.file("saved" + std::to_string(version) + ".snt");
    ASSERT_TRUE(window_->saveAs(QString::fromStdString(path), version));
    EXPECT_FALSE(window_->isWindowModified());
    EXPECT_EQ(doc().path().toStdString(), path);
    CScaleMan scale;
    CNoteMan reader(&scale);
    ASSERT_GE(reader.openSnt(path.c_str(), nullptr), 0);
    EXPECT_EQ(reader.engine()->sntVersion, version);
    EXPECT_EQ(soundingNotes(*reader.engine()), written);
  }
  // Saving put the history at its save point: the recovery file is gone.
  EXPECT_FALSE(fileExists(recoveryFilePath()));
}

// The copies of a process that has ended: this one's, renamed.
std::vector<std::string> asIfCrashed(const std::vector<QString>& copies) {
  std::vector<std::string> moved;
  for (const QString& copy : copies) {
    const std::string from = copy.toStdString();
    const std::string to = from.substr(0, from.rfind('/')) + "/.temp-1-" + std::to_string(moved.size() + 1) + ".snt";
    EXPECT_EQ(rename(from.c_str(), to.c_str()), 0) << from;
    rename((from + ".path").c_str(), (to + ".path").c_str());
    moved.push_back(to);
  }
  return moved;
}

MainWindow* otherWindow(const std::vector<MainWindow*>& known) {
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    auto* window = qobject_cast<MainWindow*>(widget);
    if (window != nullptr && std::find(known.begin(), known.end(), window) == known.end()) return window;
  }
  return nullptr;
}

TEST_F(Editor, EveryWindowKeepsItsRecoveryCopyAndEachIsOfferedAtStartUp) {
  open({{480, 480, "さ", 70}});
  const std::string saved = dir_.file("song.snt");
  QTest::keyClick(roll_, Qt::Key_A, Qt::ControlModifier);
  QTest::keyClick(roll_, Qt::Key_Up);
  auto* blank = new MainWindow;  // a second window with a new project
  blank->action("toolPen")->trigger();
  QTest::mouseClick(blank->editor()->roll(), Qt::LeftButton, Qt::NoModifier,
                    blank->editor()->roll()->rect().center());
  ASSERT_TRUE(fileExists(doc().recoveryPath().toStdString()));
  ASSERT_TRUE(fileExists(blank->document()->recoveryPath().toStdString()));
  EXPECT_NE(doc().recoveryPath(), blank->document()->recoveryPath());
  const std::vector<std::string> copies = asIfCrashed({doc().recoveryPath(), blank->document()->recoveryPath()});
  delete blank;

  // The next start: both listed by name, path and time; both loaded.
  MainWindow* next = new MainWindow;
  QStringList listed;
  whenModal([&](QWidget* box) {
    EXPECT_EQ(box->findChild<QLabel*>("recoveryText")->text(), "前回異常終了したプロジェクトがあります。");
    auto* list = box->findChild<QListWidget*>("recoveryList");
    for (int k = 0; k < list->count(); ++k) listed << list->item(k)->text();
    box->findChild<QPushButton*>("recoveryLoad")->click();
  });
  EXPECT_EQ(offerRecovery(next), 2);
  ASSERT_EQ(listed.size(), 2);
  const QString savedLine = listed[0].contains("song.snt") ? listed[0] : listed[1];
  EXPECT_TRUE(savedLine.startsWith("test — " + QString::fromStdString(saved) + " — ")) << savedLine.toStdString();
  EXPECT_TRUE(listed.filter("Untitled — never saved — ").size() == 1) << listed.join("|").toStdString();
  MainWindow* second = otherWindow({window_, next});
  ASSERT_NE(second, nullptr);
  MainWindow* restored = next->document()->path().isEmpty() ? second : next;
  MainWindow* unsaved = restored == next ? second : next;
  EXPECT_EQ(restored->document()->path().toStdString(), saved);
  EXPECT_TRUE(restored->document()->modified());
  EXPECT_TRUE(unsaved->document()->modified());
  EXPECT_TRUE(unsaved->document()->path().isEmpty());
  EXPECT_EQ(soundingNotes(restored->document()->engine()), (std::vector<Read>{{480, 480, "さ", 71}}));
  // The old copies gave way to the windows' own.
  for (const std::string& copy : copies) EXPECT_FALSE(fileExists(copy)) << copy;
  EXPECT_TRUE(fileExists(restored->document()->recoveryPath().toStdString()));
  // Saving goes to the project's own file, and its copy goes.
  ASSERT_TRUE(restored->save());
  EXPECT_NE(readFile(saved).find("NoteNum=71"), std::string::npos);
  EXPECT_FALSE(fileExists(restored->document()->recoveryPath().toStdString()));
  EXPECT_EQ(restored->suggestedPath("snt").toStdString(), saved);

  // Quitting an unsaved window with Discard takes its copy away.
  const std::string unsavedCopy = unsaved->document()->recoveryPath().toStdString();
  ASSERT_TRUE(fileExists(unsavedCopy));
  whenModal([](QWidget* box) { static_cast<QMessageBox*>(box)->button(QMessageBox::Discard)->click(); });
  unsaved->setAttribute(Qt::WA_DeleteOnClose, false);
  EXPECT_TRUE(unsaved->close());
  EXPECT_FALSE(fileExists(unsavedCopy));
  delete unsaved;
  if (restored != next) delete restored;
  delete next;

  // Closing the question keeps the copies; Discard removes them.
  window_->action("toolPen")->trigger();
  click(at(1920, 70));
  const std::vector<std::string> left = asIfCrashed({doc().recoveryPath()});
  MainWindow* later = new MainWindow;
  whenModal([](QWidget* box) { static_cast<QDialog*>(box)->reject(); });
  EXPECT_EQ(offerRecovery(later), 0);
  EXPECT_TRUE(fileExists(left[0]));
  whenModal([](QWidget* box) { box->findChild<QPushButton*>("recoveryDiscard")->click(); });
  EXPECT_EQ(offerRecovery(later), 0);
  EXPECT_FALSE(fileExists(left[0]));
  EXPECT_EQ(offerRecovery(later), 0);  // nothing to ask
  delete later;
}

TEST_F(Editor, ProjectPropertiesKeepANamelessProjectNameless) {
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  const std::string path = dir_.file("new.snt");
  ASSERT_TRUE(window_->saveAs(QString::fromStdString(path), 200));
  whenModal([](QWidget* box) {
    EXPECT_EQ(box->findChild<QLineEdit*>("projectName")->text(), "");
    static_cast<QDialog*>(box)->accept();
  });
  trigger("properties");
  EXPECT_FALSE(doc().modified());  // OK alone changes nothing
  ASSERT_TRUE(window_->saveAs(QString::fromStdString(path), 200));
  EXPECT_NE(readFile(path).find("ProjectName=\n"), std::string::npos) << readFile(path);
  whenModal([](QWidget* box) {
    box->findChild<QLineEdit*>("projectName")->setText("Spring");
    static_cast<QDialog*>(box)->accept();
  });
  trigger("properties");
  EXPECT_TRUE(doc().modified());
  EXPECT_EQ(window_->windowTitle(), "Spring[*] — TONA");
}

TEST_F(Editor, NotesDroppedOnOneAnotherAreRefusedOrMarked) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 72}});
  // The pen on a note's start and pitch chooses that note.
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  EXPECT_EQ(soundingNotes(doc().engine()).size(), 2u);
  EXPECT_TRUE(doc().notes().isSelected(0));
  EXPECT_TRUE(window_->lastMessage().contains("already there")) << window_->lastMessage().toStdString();
  EXPECT_FALSE(doc().modified());
  // A drag that puts one on the other: both marked, and the user told.
  window_->action("toolSelect")->trigger();
  click(centreOf(1));
  drag(centreOf(1), centreOf(0));
  ASSERT_EQ(soundingNotes(doc().engine()).size(), 2u);
  EXPECT_EQ(soundingNotes(doc().engine())[0].start, soundingNotes(doc().engine())[1].start);
  EXPECT_EQ(doc().stacked(), (std::vector<bool>{true, true}));
  EXPECT_TRUE(window_->lastMessage().contains("one hides the other")) << window_->lastMessage().toStdString();
  trigger("undo");
  EXPECT_EQ(doc().stacked(), (std::vector<bool>{false, false}));
}

TEST_F(Editor, AProjectOpensShowingAllItsNotes) {
  // Notes ten bars in, C4 to E4 and one A#7: a range taller than the roll.
  const std::string path = dir_.file("wide.snt");
  ASSERT_TRUE(writeFile(path, project({{19200, 480, "a", 60}, {480, 480, "a", 62}, {480, 480, "a", 64},
                                       {480, 480, "a", 106}})));
  ASSERT_TRUE(window_->openProject(QString::fromStdString(path), true));
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(roll_->rect().contains(roll_->noteRect(i).toRect())) << i << " " << scale_->rowHeight();
  }
}

TEST_F(Editor, FitSongShowsTheWholeSongAsLargeAsItGoes) {
  open({{480, 480, "a", 60}, {76800, 480, "a", 67}});  // forty bars apart, a fifth
  const int rowHeight = scale_->rowHeight();
  trigger("fitSong");
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(roll_->rect().contains(roll_->noteRect(i).toRect())) << i;
  EXPECT_GT(scale_->rowHeight(), rowHeight);  // eleven rows fill the height
}

TEST_F(Editor, TheFirstWindowTakesMostOfTheScreenAndTheNextOneWhatWasLeft) {
  QSettings().remove("mainWindowFrame");
  auto first = std::make_unique<MainWindow>();
  const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
  EXPECT_GE(first->width(), screen.width() * 3 / 4);
  EXPECT_GE(first->height(), screen.height() * 3 / 4);
  first->resize(700, 500);
  first->setAttribute(Qt::WA_DeleteOnClose, false);
  first->close();
  MainWindow next;
  EXPECT_EQ(next.size(), QSize(700, 500));
}

TEST_F(Editor, ZoomAndRedoHaveKeysOnEveryKeyboard) {
  // Ctrl+= and Ctrl++ zoom in (not vertically), Ctrl+- out; Ctrl+Y redoes.
  const double ppt = scale_->pixelsPerTick();
  const int row = scale_->rowHeight();
  QTest::keyClick(roll_, Qt::Key_Equal, Qt::ControlModifier);
  const double once = scale_->pixelsPerTick();
  EXPECT_GT(once, ppt);
  QTest::keyClick(roll_, Qt::Key_Plus, Qt::ControlModifier);  // the window system drops the Shift that made "+"
  EXPECT_GT(scale_->pixelsPerTick(), once);
  EXPECT_EQ(scale_->rowHeight(), row);
  QTest::keyClick(roll_, Qt::Key_Minus, Qt::ControlModifier);
  EXPECT_DOUBLE_EQ(scale_->pixelsPerTick(), once);
  QTest::keyClick(roll_, Qt::Key_Equal, Qt::ControlModifier | Qt::AltModifier);
  EXPECT_GT(scale_->rowHeight(), row);
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  trigger("undo");
  QTest::keyClick(roll_, Qt::Key_Y, Qt::ControlModifier);
  EXPECT_EQ(soundingNotes(doc().engine()).size(), 1u);
}

TEST_F(Editor, AnEditAfterUndoingPastTheSaveLeavesTheProjectModified) {
  // Open, select all, up, save, undo, down: the notes differ from the file.
  open({{480, 480, "さ", 70}, {0, 480, "く", 72}});
  const std::string path = dir_.file("song.snt");
  QTest::keyClick(roll_, Qt::Key_A, Qt::ControlModifier);
  QTest::keyClick(roll_, Qt::Key_Up);
  QTest::keyClick(roll_, Qt::Key_S, Qt::ControlModifier);
  EXPECT_FALSE(window_->isWindowModified());
  const std::string saved = readFile(path);
  QTest::keyClick(roll_, Qt::Key_Z, Qt::ControlModifier);
  QTest::keyClick(roll_, Qt::Key_Down);
  EXPECT_TRUE(window_->isWindowModified());
  EXPECT_TRUE(doc().modified());
  EXPECT_TRUE(fileExists(doc().recoveryPath().toStdString()));
  EXPECT_EQ(readFile(path), saved);
  // Quitting asks.
  bool asked = false;
  whenModal([&](QWidget* box) {
    asked = true;
    static_cast<QMessageBox*>(box)->button(QMessageBox::Cancel)->click();
  });
  EXPECT_FALSE(window_->close());
  EXPECT_TRUE(asked);
}

TEST_F(Editor, ClosingAModifiedProjectAsksToSave) {
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  whenModal([](QWidget* box) { static_cast<QMessageBox*>(box)->button(QMessageBox::Cancel)->click(); });
  EXPECT_FALSE(window_->close());
  whenModal([](QWidget* box) { static_cast<QMessageBox*>(box)->button(QMessageBox::Discard)->click(); });
  window_->setAttribute(Qt::WA_DeleteOnClose, false);
  EXPECT_TRUE(window_->close());
}

TEST_F(Editor, AnEditDuringPlaybackStopsItFirst) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  std::vector<Note> notes;
  for (int i = 0; i < 40; ++i) notes.push_back({i == 0 ? 480 : 480, 480, "a", 60 + i % 5});
  open(notes, bank.folder());
  ASSERT_GT(doc().voiceEntryCount(), 0);
  trigger("play");
  ASSERT_TRUE(Player::instance().active()) << window_->lastMessage().toStdString();
  EXPECT_EQ(Player::instance().document(), &doc());
  click(centreOf(0));  // a selection is not an edit
  EXPECT_TRUE(Player::instance().active());
  QTest::keyClick(roll_, Qt::Key_Up);  // an edit is
  EXPECT_FALSE(Player::instance().active());
  EXPECT_EQ(doc().engine().renderState.load(), 0);
  EXPECT_EQ(soundingNotes(doc().engine())[0].noteNum, 61);
}

// A note is heard as it is written: clicked, at each new pitch it is
// dragged to, and drawn with the pen, through the player (SDL's dummy
// driver here); not once the toolbar's toggle is off.
TEST_F(Editor, ANoteIsHeardWhenClickedDraggedToAnotherPitchOrDrawn) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  open({{480, 480, "a", 60}}, bank.folder());
  ASSERT_TRUE(window_->action("audition")->isChecked());
  // The pitch of the clip handed to the player, read at once (it is freed
  // once played), and then that the device plays it.
  auto heard = [] {
    const int16_t* words = CAudioOut::data.load();
    const uint32_t end = CAudioOut::length.load();
    if (words == nullptr || end < 24 + 8000) return 0.0;
    const double f = averagePitch(std::vector<int16_t>(words + 24 + 3000, words + end - 3000));
    EXPECT_TRUE(waitFor([] { return CAudioOut::PlayingPos.load() > CAudioOut::offset.load() + 2205; }, 3000));
    return 1200.0 * std::log2(f / 440.0) / 100.0 + 69.0;  // as a note number
  };
  click(centreOf(0));
  EXPECT_NEAR(heard(), 60.0, 0.2);
  drag(centreOf(0), centreOf(0) - QPoint(0, 3 * scale_->rowHeight()));
  EXPECT_EQ(soundingNotes(doc().engine())[0].noteNum, 63);
  EXPECT_NEAR(heard(), 63.0, 0.2);
  window_->action("toolPen")->trigger();
  click(at(1920, 67));
  ASSERT_EQ(soundingNotes(doc().engine()).size(), 2u);
  EXPECT_NEAR(heard(), 67.0, 0.2);
  ASSERT_TRUE(waitFor([] { return CAudioOut::data.load() == nullptr; }, 3000));  // the clip ends
  trigger("audition");
  window_->action("toolSelect")->trigger();
  click(centreOf(0));
  EXPECT_EQ(CAudioOut::data.load(), nullptr);
  EXPECT_FALSE(QSettings().value("audition", true).toBool());
  trigger("audition");
}

// The metronome, off by default: on, a click on every beat at its time
// under the tempo map (120, then 60 from the third beat), the measures'
// first beats marked, laid into what plays; a render to a file has none.
TEST_F(Editor, TheMetronomeClicksOnEveryBeatUnderTheTempoMap) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  open({{0, 960, "R", 60}, {960, 2880, "R", 60, "Tempo=60.00\n"}, {2880, 480, "a", 60}}, bank.folder());
  ASSERT_FALSE(window_->action("metronome")->isChecked());
  trigger("metronome");
  trigger("play");
  ASSERT_TRUE(Player::instance().active()) << window_->lastMessage().toStdString();
  const std::vector<Metronome::Click>& clicks = Player::instance().metronome().clicks();
  const double times[] = {0, 500, 1000, 2000, 3000, 4000, 5000, 6000, 7000};
  ASSERT_GE(clicks.size(), 9u);
  for (size_t k = 0; k < 9; ++k) {
    EXPECT_NEAR(clicks[k].ms, times[k], 0.01) << k;
    EXPECT_EQ(clicks[k].accent, k == 0 || k == 4 || k == 8) << k;
  }
  // In the mix (from the play position on: the render may pass over the
  // leading rests), clicks start apart as the beats are and nothing sounds
  // between them until the note.
  ASSERT_TRUE(waitFor([&] { return doc().engine().renderState.load() == 0; }, 10000));
  const int16_t* block = CAudioOut::data.load();
  ASSERT_NE(block, nullptr);
  std::vector<int64_t> onsets;
  int64_t silent = 200;
  for (int64_t k = 24; k < CAudioOut::length.load() && onsets.size() < 5; ++k) {
    if (block[k] != 0 && silent >= 200) onsets.push_back(k);
    silent = block[k] == 0 ? silent + 1 : 0;
  }
  ASSERT_EQ(onsets.size(), 5u);
  bool aligned = false;
  for (size_t j = 0; j + 5 <= 9 && !aligned; ++j) {
    aligned = true;
    for (size_t k = 1; k < 5; ++k) {
      aligned &= std::llabs(onsets[k] - onsets[0] - std::llround((times[j + k] - times[j]) * 44.1)) <= 1;
    }
  }
  EXPECT_TRUE(aligned) << onsets[1] - onsets[0] << " " << onsets[2] - onsets[1];
  trigger("stop");
  EXPECT_EQ(doc().engine().underlay, nullptr);
  trigger("metronome");
}

// With no voice bank the window itself says so, where banks go, and
// offers the ways to one; the demo bank is a click away, and the word goes
// once the notes can sing.
TEST_F(Editor, WithNoVoiceBankTheWindowSaysSoAndOffersTheDemoBank) {
  auto* banner = window_->findChild<QFrame*>("bankBanner");
  ASSERT_NE(banner, nullptr);
  EXPECT_FALSE(banner->isHidden());
  const QString voices = QString::fromStdString(userFolder(UserFolder::kVoice));
  EXPECT_TRUE(window_->findChild<QLabel*>("bankText")->text().contains(voices));
  EXPECT_FALSE(window_->findChild<QPushButton*>("bankChoose")->isHidden());
  auto* demo = window_->findChild<QPushButton*>("bankDemo");
  ASSERT_FALSE(demo->isHidden());
  QTest::mouseClick(demo, Qt::LeftButton);
  EXPECT_GT(doc().voiceEntryCount(), 0);
  EXPECT_TRUE(doc().voiceFolder().endsWith("/demo/voicebank/")) << doc().voiceFolder().toStdString();
  EXPECT_TRUE(banner->isHidden());
  // A project whose bank is not there says which.
  open({{480, 480, "a", 60}}, "/no/such/bank/");
  EXPECT_FALSE(banner->isHidden());
  EXPECT_TRUE(window_->findChild<QLabel*>("bankText")->text().contains("/no/such/bank/"));
  QSettings().remove("singerHistory");  // the demo bank was remembered as a singer
}

// A value no render can take is brought in as the project is read, and
// the window says so.
TEST_F(Editor, AValueOutsideItsRangeIsBroughtInAndSaid) {
  open({{480, 480, "a", 60, "Modulation=1000\n"}});
  EXPECT_EQ(doc().engine().notes[0].Modulation, 200);
  EXPECT_TRUE(window_->lastMessage().contains("note [#0000]: Modulation=1000 is outside -200..200: read as 200"))
      << window_->lastMessage().toStdString();
}

// A backing track: added, drawn in its lane, dragged against the song,
// heard in playback and mixed into a rendered file at its offset (only when
// asked), kept by a 2.0 save relative to the project, and warned about by
// a 1.2 save.
TEST_F(Editor, ABackingTrackPlaysAndRendersAtItsOffsetAndIsKeptWithTheProject) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  // A note at the start (a 40 ms lead before it), then a rest to 4 s.
  open({{0, 480, "a", 60}, {480, 3360, "R", 60}, {3360, 480, "a", 60}}, bank.folder());
  std::vector<int16_t> tone(44100);
  for (size_t k = 0; k < tone.size(); ++k) tone[k] = static_cast<int16_t>(std::lround(12000.0 * std::sin(k * 0.0628)));
  const std::string track = dir_.file("music/tone.wav");
  mkdir(dir_.file("music").c_str(), 0777);
  ASSERT_EQ(saveWaveFile(track.c_str(), tone.data(), 88200, 16, 1, 44100), 0);
  BackingLane* lane = window_->editor()->backingLane();
  EXPECT_TRUE(lane->isHidden());
  QString error;
  ASSERT_TRUE(doc().setBackingTrack(QString::fromStdString(track), &error)) << error.toStdString();
  EXPECT_FALSE(lane->isHidden());
  EXPECT_TRUE(doc().modified());
  EXPECT_FALSE(doc().setBackingTrack(QString::fromStdString(dir_.file("none.wav")), &error));
  EXPECT_EQ(doc().backing().path(), track);

  // Dragged 120 px to the right: later by the time those pixels span.
  const int y = lane->height() / 2;
  const double expected = std::round(lane->msAt(150) - lane->msAt(30));
  QTest::mousePress(lane, Qt::LeftButton, Qt::NoModifier, QPoint(30, y));
  QMouseEvent move(QEvent::MouseMove, QPoint(150, y), lane->mapToGlobal(QPoint(150, y)), Qt::NoButton,
                   Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(lane, &move);
  QTest::mouseRelease(lane, Qt::LeftButton, Qt::NoModifier, QPoint(150, y));
  EXPECT_EQ(doc().backing().offsetMs, expected);
  EXPECT_GT(expected, 100.0);
  doc().setBackingOffset(2000.0);

  // Where the tone is in a mix that starts 40 ms before the song.
  const size_t at = static_cast<size_t>(std::llround((2000.0 + 40.0) * 44.1));
  auto holdsTone = [&](const int16_t* mix, size_t count) {
    if (count < at + tone.size()) return false;
    for (size_t k = 0; k < tone.size(); ++k) {
      if (mix[at + k] != tone[k]) return false;
    }
    return mix[at - 1] == 0 && mix[at + tone.size()] == 0;
  };
  trigger("play");
  ASSERT_TRUE(Player::instance().active()) << window_->lastMessage().toStdString();
  ASSERT_TRUE(waitFor([&] { return doc().engine().renderState.load() == 0; }, 10000));
  ASSERT_NE(CAudioOut::data.load(), nullptr);
  EXPECT_TRUE(holdsTone(CAudioOut::data.load() + 24, CAudioOut::length.load() - 24));
  trigger("stop");

  for (bool with : {true, false}) {
    const std::string wave = dir_.file(with ? "with.wav" : "without.wav");
    ASSERT_TRUE(window_->renderToWave(QString::fromStdString(wave), -1, -1, with));
    const std::string bytes = readFile(wave);
    ASSERT_GT(bytes.size(), 44u + at * 2);
    const auto* mix = reinterpret_cast<const int16_t*>(bytes.data() + 44);
    EXPECT_EQ(holdsTone(mix, (bytes.size() - 44) / 2), with);
    if (!with) {
      EXPECT_EQ(mix[at + 10], 0);
    }
  }
  // A track that goes on after the last note (the song ends at 4.5 s)
  // takes the rendered file with it to its end.
  doc().setBackingOffset(5000.0);
  const std::string longer = dir_.file("longer.wav");
  ASSERT_TRUE(window_->renderToWave(QString::fromStdString(longer), -1, -1, true));
  EXPECT_EQ((readFile(longer).size() - 44) / 2, static_cast<size_t>((6000.0 + 40.0) * 44.1 + 1.0));
  doc().setBackingOffset(2000.0);

  // Muted: nothing is laid.
  doc().setBackingMuted(true);
  trigger("play");
  ASSERT_TRUE(waitFor([&] { return doc().engine().renderState.load() == 0; }, 10000));
  ASSERT_NE(CAudioOut::data.load(), nullptr);
  EXPECT_EQ(CAudioOut::data.load()[24 + at + 10], 0);
  trigger("stop");
  doc().setBackingMuted(false);
  doc().setBackingVolume(80);

  // Kept by the 2.0 form, relative to the project; read back whole.
  const std::string saved = dir_.file("songs/song.snt");
  mkdir(dir_.file("songs").c_str(), 0777);
  ASSERT_TRUE(window_->saveAs(QString::fromStdString(saved), 200));
  EXPECT_NE(readFile(saved).find("BackingTrack=../music/tone.wav\n"), std::string::npos);
  ASSERT_TRUE(window_->openProject(QString::fromStdString(saved), true));
  EXPECT_EQ(doc().backing().path(), track);
  EXPECT_EQ(doc().backing().offsetMs, 2000.0);
  EXPECT_EQ(doc().backing().volume, 80);
  EXPECT_EQ(doc().backing().samples().size(), tone.size());
  ASSERT_TRUE(window_->saveAs(QString::fromStdString(dir_.file("old.snt")), 120));
  EXPECT_TRUE(window_->lastMessage().contains("cannot keep the backing track")) << window_->lastMessage().toStdString();
  trigger("removeBacking");
  EXPECT_TRUE(doc().backing().empty());
  EXPECT_TRUE(lane->isHidden());
}

// Render first: the sound starts only once the whole song is rendered;
// without it, while the render still runs (the song is long enough that
// the render outlasts the 700 ms the driver waits at most). And the play
// position read back in ticks across a tempo change: 2.5 s in is 500 ms
// into the fourth note, the first at tempo 60 (a rest and three notes of
// 500 ms, then 240 ticks).
TEST_F(Editor, RenderFirstWaitsAndThePlayPositionCrossesTempoChanges) {
  struct RenderFirst {
    explicit RenderFirst(bool on) { set(on); }
    ~RenderFirst() { set(false); }
    void set(bool on) {
      EditorPreferences prefs = EditorPreferences::load();
      prefs.renderFirst = on;
      prefs.save();
    }
  } renderFirst(true);
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  std::vector<Note> notes = {{480, 480, "a", 60},
                             {480, 480, "a", 62},
                             {480, 480, "a", 64},
                             {480, 480, "a", 65, "Tempo=60.00\n"},
                             {480, 480, "a", 67}};
  for (int i = 0; i < 80; ++i) notes.push_back({i == 0 ? 480 : 1920, 1920, "a", 60 + i % 7});  // 320 s
  open(notes, bank.folder());
  int64_t lastTick = -2;
  int lastSinging = -2;
  int renderingWhenStarted = -1;
  QObject watcher;  // goes first: no report reaches the variables above once they are gone
  QObject::connect(&Player::instance(), &Player::positionChanged, &watcher,
                   [&](int64_t tick, int singing, int64_t, int64_t) {
                     if (tick > 0 && renderingWhenStarted < 0)
                       renderingWhenStarted = doc().engine().renderState.load() != 0;
                     lastTick = tick;
                     lastSinging = singing;
                   });
  trigger("play");
  ASSERT_TRUE(Player::instance().active()) << window_->lastMessage().toStdString();
  ASSERT_TRUE(waitFor([&] { return renderingWhenStarted >= 0; }, 60000));
  EXPECT_EQ(renderingWhenStarted, 0);
  trigger("play");  // pause
  ASSERT_TRUE(Player::instance().paused());
  CAudioOut::PlayingPos = CAudioOut::offset.load() + 44100 * 5 / 2;
  EXPECT_TRUE(waitFor([&] { return lastTick == 1920 + 240; }, 2000)) << lastTick;
  // The sung note by its index among the engine's notes, which hold the
  // tempo change as a note of its own.
  ASSERT_GE(lastSinging, 0);
  EXPECT_EQ(doc().engine().notes[lastSinging].NoteNum, 65);
  trigger("stop");
  EXPECT_EQ(lastTick, -1);

  // Every note changed, so that none comes from the render cache.
  renderFirst.set(false);
  trigger("selectAll");
  QTest::keyClick(roll_, Qt::Key_Up);
  renderingWhenStarted = -1;
  trigger("play");
  ASSERT_TRUE(waitFor([&] { return renderingWhenStarted >= 0; }, 60000));
  EXPECT_EQ(renderingWhenStarted, 1);
  trigger("stop");
}

TEST_F(Editor, PlayingWithoutAVoiceBankSaysWhy) {
  open({{480, 480, "a", 60}});
  trigger("play");
  EXPECT_FALSE(Player::instance().active());
  EXPECT_EQ(window_->lastMessage(), "原音パスを設定してください");
  installCoreTexts(QLocale(QLocale::English));
  trigger("play");
  EXPECT_EQ(window_->lastMessage(), "Set the voice bank folder");
  window_->action("toolPen")->trigger();
  click(at(1920, 70));
  EXPECT_EQ(title("undo"), "Undo Add Notes");
  trigger("undo");
  EXPECT_EQ(title("redo"), "Redo Add Notes");
  removeCoreTexts();
}

TEST_F(Editor, TheRollDrawsEachNoteAtItsPlace) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  open({{480, 480, "a", 70}, {960, 240, "a", 66}, {480, 480, "zz", 60}}, bank.folder());
  click(centreOf(1));
  const QImage image = roll_->grab().toImage();
  auto colour = [&](QPoint p) { return image.pixelColor(p * image.devicePixelRatio()); };
  // Inside the boxes, away from lyric and curve: the note colours.
  const QPoint first(static_cast<int>(scale_->tickToX(480 + 420)), scale_->noteToY(70) + 3);
  const QPoint second(static_cast<int>(scale_->tickToX(1440 + 200)), scale_->noteToY(66) + 3);
  EXPECT_EQ(colour(first), QColor(104, 160, 220));
  EXPECT_EQ(colour(second), QColor(245, 166, 80));  // selected
  // Just after the first box ends and above the second: no note.
  EXPECT_NE(colour(first + QPoint(static_cast<int>(100 * scale_->pixelsPerTick()), 0)), QColor(104, 160, 220));
  EXPECT_NE(colour(second - QPoint(0, scale_->rowHeight())), QColor(245, 166, 80));
  // A note the bank cannot sing is drawn faded.
  const QPoint third(static_cast<int>(scale_->tickToX(1920 + 420)), scale_->noteToY(60) + 3);
  const QColor faded = colour(third);
  EXPECT_NE(faded, QColor(104, 160, 220));
  EXPECT_GT(faded.lightness(), QColor(104, 160, 220).lightness());
}

}  // namespace

namespace {

TEST_F(Editor, OneWindowPerProjectAndRenderToWaveWritesTheSong) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  open({{480, 480, "a", 60}, {480, 480, "a", 62}}, bank.folder());
  // The window holds a project: another one opens beside it.
  const std::string other = dir_.file("other.snt");
  ASSERT_TRUE(writeFile(other, project({{0, 480, "a", 64}})));
  const int windows = QApplication::topLevelWidgets().size();
  window_->openElsewhere(QString::fromStdString(other));
  MainWindow* second = nullptr;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    auto* candidate = qobject_cast<MainWindow*>(widget);
    if (candidate != nullptr && candidate != window_) second = candidate;
  }
  ASSERT_NE(second, nullptr);
  EXPECT_GT(QApplication::topLevelWidgets().size(), windows);
  EXPECT_EQ(second->document()->path().toStdString(), other);
  EXPECT_EQ(soundingNotes(doc().engine()).size(), 2u);  // this one is untouched
  delete second;

  const std::string wave = dir_.file("out.wav");
  ASSERT_TRUE(window_->renderToWave(QString::fromStdString(wave))) << window_->lastMessage().toStdString();
  const std::string bytes = readFile(wave);
  ASSERT_GT(bytes.size(), 44u);
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  // Two quarters at 120 after a quarter's lead: at least a second of sound.
  EXPECT_GT((bytes.size() - 44) / 2, 44100u);
  // The selection alone: its one quarter, with its consonant's lead.
  const std::string part = dir_.file("part.wav");
  ASSERT_TRUE(window_->renderToWave(QString::fromStdString(part), 1, 1)) << window_->lastMessage().toStdString();
  const size_t samples = (readFile(part).size() - 44) / 2;
  EXPECT_GT(samples, 22050u);
  EXPECT_LT(samples, 22050u + 4410u);
}

}  // namespace

namespace {

// The program itself: help, a bad option, and a picture of a project.
TEST(EditorProgram, HelpBadOptionsAndAScreenshot) {
  TempDir dir;
  const std::string out = dir.file("out.txt");
  const std::string program = TONA_EDITOR_BINARY;
  auto run = [&](const std::string& args) {
    const int status = system((program + " " + args + " >" + out + " 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(run("--help"), 0);
  EXPECT_NE(readFile(out).find("usage: tona-editor"), std::string::npos);
  EXPECT_EQ(run("--bogus"), 2);
  EXPECT_NE(readFile(out).find("unknown option '--bogus'"), std::string::npos);
  EXPECT_EQ(run("--screenshot"), 2);
  EXPECT_EQ(run("--screenshot x.png --size 10x10"), 2);

  const std::string song = dir.file("song.snt");
  ASSERT_TRUE(writeFile(song, project({{480, 480, "さ", 70}, {480, 960, "く", 72}})));
  const std::string picture = dir.file("song.png");
  ASSERT_EQ(run("--screenshot " + picture + " --size 640x400 " + song), 0) << readFile(out);
  QImage image(QString::fromStdString(picture));
  EXPECT_EQ(image.size(), QSize(640, 400));
  // Not a project: one line and a failure.
  EXPECT_EQ(run("--screenshot " + picture + " " + dir.path()), 1);
  EXPECT_NE(readFile(out).find("Not a project"), std::string::npos);
  // A sequence is pictured as the editor imports it; a bad one is refused.
  CScaleMan scale;
  CNoteMan notes(&scale);
  notes.insertNotePosition(0, 480, 60, "la");
  CMIDIMan midi;
  ASSERT_TRUE(midi.writeSMFFile(dir.file("song.mid").c_str(), &notes));
  EXPECT_EQ(run("--screenshot " + picture + " " + dir.file("song.mid")), 0) << readFile(out);
  ASSERT_TRUE(writeFile(dir.file("bad.mid"), "no MIDI"));
  EXPECT_EQ(run("--screenshot " + picture + " " + dir.file("bad.mid")), 1);
  EXPECT_NE(readFile(out).find("Cannot import"), std::string::npos) << readFile(out);
}

}  // namespace

namespace {

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (const dirent* entry = readdir(dir)) names.push_back(entry->d_name);
    closedir(dir);
  }
  return names;
}

// A logout after playback: SIGTERM ends the editor at once and leaves the
// unsaved project in its recovery copy.
TEST(EditorProgram, TerminationAfterPlaybackKeepsTheRecoveryCopy) {
  FakeHome home;
  TempDir dir;
  CScaleMan scale;
  CNoteMan notes(&scale);
  notes.insertNotePosition(0, 480, 60, "la");
  const std::string song = dir.file("song.mid");
  CMIDIMan midi;
  ASSERT_TRUE(midi.writeSMFFile(song.c_str(), &notes));
  const std::string folder = home.path() + "/.local/state/tona/temp";
  for (int signal : {SIGTERM, SIGHUP}) {
    SCOPED_TRACE(signal);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execl(TONA_EDITOR_BINARY, TONA_EDITOR_BINARY, "--play", song.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // The import is an unsaved project: its copy appears, then Play runs.
    std::string copy;
    for (int k = 0; k < 1000 && copy.empty(); ++k) {
      for (const std::string& name : listFolder(folder)) {
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".snt") == 0) copy = folder + "/" + name;
      }
      usleep(10000);
    }
    ASSERT_FALSE(copy.empty());
    usleep(300000);
    kill(child, signal);
    int status = 0;
    pid_t ended = 0;
    for (int k = 0; k < 200 && ended == 0; ++k) {
      ended = waitpid(child, &status, WNOHANG);
      if (ended == 0) usleep(10000);
    }
    if (ended == 0) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      FAIL() << "still running 2 s after the signal";
    }
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_TRUE(fileExists(copy));
    EXPECT_NE(readFile(copy).find("Lyric=la"), std::string::npos);
    unlink(copy.c_str());
  }
}

}  // namespace
