// The voice-bank side of the editor: the entry editor, the prefix map,
// the singer dialog and analysis, preferences, and MIDI/VSQ exchange.
#include "tests/voicebank/bank.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDoubleSpinBox>
#include <QKeySequenceEdit>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QListWidget>
#include <QSettings>
#include <QSortFilterProxyModel>
#include <QSpinBox>
#include <QTableView>
#include <QTableWidget>
#include <QUndoStack>
#include <cmath>

#include "app/analysis.h"
#include "support/userdirs.h"
#include "tests/ui/editor_fixture.h"
#include "ui/shell/bankdialogs.h"
#include "ui/shell/bankeditor.h"
#include "ui/shell/preferences.h"
#include "ui/views/waveview.h"
#include "voicebank/freqtable.h"
#include "voicebank/voiceset.h"

using namespace editortest;

namespace {

// A bank of two vowels of 0.6 s, "a" and "i", in its oto.ini.
void writeBank(const TestBank& bank) {
  VoiceSignal voice;
  voice.seconds = 0.6;
  voice.writeWave(bank.folder() + "a.wav");
  voice.f0 = 240.0;
  voice.writeWave(bank.folder() + "i.wav");
  bank.write("oto.ini", "a.wav=a,30,60,-400,40,10\ni.wav=i,20,50,100,35,5\n");
}

class Bank : public Editor {
 protected:
  void SetUp() override {
    Editor::SetUp();
    writeBank(bank_);
  }
  // The entry editor on the bank, shown.
  BankEditor* openEditor() {
    auto* editor = new BankEditor;
    QString error;
    EXPECT_TRUE(editor->open(QString::fromStdString(bank_.folder()), &error)) << error.toStdString();
    editor->resize(900, 600);
    editor->show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(editor));
    return editor;
  }
  TestBank bank_;
};

TEST_F(Bank, MarkersAreDraggedAndTypedUndoneAndSavedToOtoIniTxt) {
  const std::string otoBefore = readFile(bank_.folder() + "oto.ini");
  open({{480, 480, "a", 60}}, bank_.folder());  // a project singing with the bank
  BankEditor* editor = openEditor();
  ASSERT_EQ(editor->voiceSet().count(), 2);
  editor->choose(0);
  WaveView* wave = editor->waveView();
  ASSERT_NE(wave->picture(), nullptr);
  EXPECT_NEAR(wave->picture()->lengthMs, 600.0, 1.0);

  // The pre-utterance marker (offset 30 + 40 ms) dragged 50 pixels right.
  const double x = wave->msToX(wave->markerMs(WaveView::kPreutterance));
  const QPointF from(x, 20), to(x + 50, 20);
  QTest::mousePress(wave, Qt::LeftButton, Qt::NoModifier, from.toPoint());
  QMouseEvent move(QEvent::MouseMove, to, wave->mapToGlobal(to), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(wave, &move);
  QTest::mouseRelease(wave, Qt::LeftButton, Qt::NoModifier, to.toPoint());
  const double expected = wave->xToMs(std::round(x) + 50) - 30.0;
  EXPECT_NEAR(editor->voiceSet().getVoiceEntry(0)->preuttr, expected, 0.1);
  EXPECT_NEAR(editor->field("preuttr")->value(), expected, 0.1);
  EXPECT_EQ(editor->undoStack()->count(), 1);

  // The offset moved alone: the other markers keep their places in the file.
  const VoiceData before = *editor->voiceSet().getVoiceEntry(0);
  const VoiceData moved = wave->moved(before, WaveView::kOffset, 50.0);
  EXPECT_FLOAT_EQ(moved.offset, 50.0f);
  EXPECT_FLOAT_EQ(moved.offset + moved.fixed, before.offset + before.fixed);
  EXPECT_FLOAT_EQ(moved.offset - moved.blank, before.offset - before.blank);  // a cut-off counted from the offset

  // Typed: the overlap; a typed offset past the sample's end is held at it.
  editor->field("overlap")->setValue(25.0);
  EXPECT_FLOAT_EQ(editor->voiceSet().getVoiceEntry(0)->overlap, 25.0f);
  editor->field("offset")->setValue(5000.0);
  EXPECT_LE(editor->voiceSet().getVoiceEntry(0)->offset, 600.1f);
  editor->undoStack()->undo();
  EXPECT_FLOAT_EQ(editor->voiceSet().getVoiceEntry(0)->offset, 30.0f);
  editor->undoStack()->undo();
  EXPECT_FLOAT_EQ(editor->voiceSet().getVoiceEntry(0)->overlap, 10.0f);
  editor->undoStack()->redo();

  // Saved: an oto_ini.txt the core reads back the same; oto.ini untouched.
  QString error;
  ASSERT_TRUE(editor->save(&error)) << error.toStdString();
  EXPECT_EQ(readFile(bank_.folder() + "oto.ini"), otoBefore);
  cvoiceset reread;
  ASSERT_GT(reread.read_voiceset(bank_.folder().c_str()), 0);
  ASSERT_EQ(reread.count(), 2);
  for (int i = 0; i < 2; ++i) {
    const VoiceData& a = *reread.getVoiceEntry(i);
    const VoiceData& b = *editor->voiceSet().getVoiceEntry(i);
    EXPECT_STREQ(a.filename, b.filename);
    EXPECT_STREQ(a.alias, b.alias);
    EXPECT_NEAR(a.preuttr, b.preuttr, 0.05);
    EXPECT_NEAR(a.overlap, b.overlap, 0.05);
    EXPECT_NEAR(a.blank, b.blank, 0.05);
  }
  EXPECT_FLOAT_EQ(reread.getVoiceEntry(0)->overlap, 25.0f);
  // The open project sings with the entries as saved.
  ASSERT_NE(doc().engine().voiceset, nullptr);
  EXPECT_FLOAT_EQ(doc().engine().voiceset->search_voicedata("a")->overlap, 25.0f);
  delete editor;
}

TEST_F(Bank, TheTableFiltersSortsAndMarksWhatIsMissing) {
  bank_.write("oto.ini", "a.wav=a,30,60,-400,40,10\ni.wav=i,20,50,100,35,5\ngone.wav=u,0,0,0,0,0\n");
  BankEditor* editor = openEditor();
  EXPECT_EQ(editor->proxy()->rowCount(), 3);
  editor->filter()->setText("gone");
  EXPECT_EQ(editor->proxy()->rowCount(), 1);
  editor->filter()->clear();
  EXPECT_EQ(editor->model()->missing(2), "sample missing");
  EXPECT_EQ(editor->model()->missing(0), "no frequency table");  // not analysed yet
  editor->table()->sortByColumn(EntryModel::kPreutterance, Qt::AscendingOrder);
  EXPECT_EQ(editor->proxy()->index(0, EntryModel::kAlias).data().toString(), "u");  // 0 first, by number
  // Both ways of hearing an entry give sound.
  editor->choose(0);
  EXPECT_FALSE(editor->cutSamples().empty());
  QString error;
  EXPECT_FALSE(editor->renderedSamples(67, &error).empty()) << error.toStdString();
  EXPECT_TRUE(Player::instance().playClip(editor->cutSamples(), &error)) << error.toStdString();
  delete editor;
  // With its table beside it, the sample lacks nothing.
  bank_.write("a_wav.frq", "table");
  editor = openEditor();
  EXPECT_EQ(editor->model()->missing(0), "");
  EXPECT_EQ(editor->model()->missing(1), "no frequency table");
  delete editor;
}

TEST_F(Bank, AnalysingABankMakesItsTablesAndNamesWhatFailed) {
  bank_.write("broken.wav", "not a wave");
  bank_.write("oto.ini", "a.wav=a,30,60,-400,40,10\ni.wav=i,20,50,100,35,5\nbroken.wav=x,0,0,0,0,0\n");
  const QStringList failures = analyzeBank(window_, QString::fromStdString(bank_.folder()));
  ASSERT_EQ(failures.size(), 1);
  EXPECT_TRUE(failures[0].contains("broken.wav")) << failures[0].toStdString();
  EXPECT_TRUE(failures[0].contains("not a readable")) << failures[0].toStdString();
  EXPECT_TRUE(fileExists(frequencyTablePath((bank_.folder() + "a.wav").c_str(), "frq")));
  EXPECT_TRUE(fileExists(frequencyTablePath((bank_.folder() + "i.wav").c_str(), "frq")));
}

TEST_F(Bank, ThePrefixMapIsSavedAndReadBackAsTyped) {
  open({{480, 480, "a", 60}}, bank_.folder());
  ASSERT_GT(doc().voiceEntryCount(), 0);
  {
    PrefixMapDialog dialog(&doc());
    QTableWidget* table = dialog.table();
    ASSERT_EQ(table->rowCount(), 84);
    EXPECT_EQ(table->item(0, 0)->text(), "B7");
    const int c4 = PrefixMapDialog::kHighest - 60;
    EXPECT_EQ(table->item(c4, 0)->text(), "C4");
    table->item(c4, 1)->setText("強");
    table->item(c4, 2)->setText("↑");
    QString error;
    ASSERT_TRUE(dialog.save(&error)) << error.toStdString();
  }
  EXPECT_TRUE(fileExists(bank_.folder() + "prefixmap"));
  EXPECT_TRUE(fileExists(bank_.folder() + "prefix.map"));
  // Shown again as typed (UTF-8), not as the writer leaves the map in memory.
  PrefixMapDialog again(&doc());
  const int c4 = PrefixMapDialog::kHighest - 60;
  EXPECT_EQ(again.table()->item(c4, 1)->text(), "強");
  EXPECT_EQ(again.table()->item(c4, 2)->text(), "↑");
  QString error;
  again.table()->item(c4, 1)->setText(QString(40, 'x'));
  EXPECT_FALSE(again.save(&error));
  EXPECT_TRUE(error.contains("31 bytes")) << error.toStdString();
}

TEST_F(Bank, TheSingerDialogOffersAFolderFromAnywhereAndWaitsForAChoice) {
  SingerDialog dialog(&doc());
  ASSERT_EQ(dialog.list()->count(), 0);  // a first run: no banks yet
  for (const char* name : {"sing", "analyze", "entries"}) {
    EXPECT_FALSE(dialog.findChild<QPushButton*>(name)->isEnabled()) << name;
  }
  ASSERT_NE(dialog.findChild<QPushButton*>("addFolder"), nullptr);
  bank_.write("oto.ini", "a.wav=a,30,60,-400,40,10\n");
  bank_.write("readme.txt", "A voice recorded\nin one day.\n\nこれは\nテストです。\n");
  dialog.addFolder(QString::fromStdString(bank_.folder()));
  dialog.addFolder(QString::fromStdString(bank_.folder()));  // once only
  ASSERT_EQ(dialog.list()->count(), 1);
  EXPECT_TRUE(dialog.findChild<QPushButton*>("sing")->isEnabled());
  EXPECT_EQ(dialog.findChild<QPlainTextEdit*>("profile")->toPlainText(), "A voice recorded in one day.\n\nこれはテストです。");
  QString error;
  ASSERT_TRUE(dialog.singWithChosen(&error)) << error.toStdString();
  EXPECT_GT(doc().voiceEntryCount(), 0);
}

TEST_F(Bank, TheSingerDialogShowsProfilesAndChoosingMarksTheProject) {
  // A bank in the user's voice folder, with its name in character.txt.
  const std::string voices = userFolder(UserFolder::kVoice, true);
  const std::string folder = voices + "/Hana";
  mkdir(folder.c_str(), 0777);
  VoiceSignal voice;
  voice.seconds = 0.4;
  voice.writeWave(folder + "/a.wav");
  writeFile(folder + "/oto.ini", "a.wav=a,30,60,-200,40,10\n");
  writeFile(folder + "/character.txt", "#Charset:UTF-8\nname=はな\nauthor=test\n");
  const QStringList banks = knownVoiceBanks();
  ASSERT_TRUE(banks.contains(QString::fromStdString(folder + "/"))) << banks.join(",").toStdString();

  open({{480, 480, "a", 60}});
  EXPECT_FALSE(doc().modified());
  SingerDialog dialog(&doc());
  ASSERT_GE(dialog.list()->count(), 1);
  for (int k = 0; k < dialog.list()->count(); ++k) {
    if (dialog.list()->item(k)->data(Qt::UserRole).toString() == QString::fromStdString(folder + "/")) {
      dialog.list()->setCurrentRow(k);
    }
  }
  EXPECT_EQ(dialog.shownName(), "はな");
  EXPECT_EQ(dialog.findChild<QPlainTextEdit*>("profile")->toPlainText(), "author=test");  // no charset line
  QString error;
  ASSERT_TRUE(dialog.singWithChosen(&error)) << error.toStdString();
  EXPECT_TRUE(doc().modified());
  EXPECT_EQ(doc().voiceFolder().toStdString(), folder + "/");
  EXPECT_EQ(QSettings().value("singerHistory").toStringList().value(0).toStdString(), folder + "/");
}

TEST_F(Bank, PreferencesRefuseShortcutConflictsAndKeepTheirChoices) {
  PreferencesDialog dialog(window_);
  QTableWidget* keys = dialog.shortcuts();
  int undoRow = -1, playRow = -1;
  for (int row = 0; row < keys->rowCount(); ++row) {
    const QString name = keys->item(row, 0)->data(Qt::UserRole).toString();
    if (name == "undo") undoRow = row;
    if (name == "play") playRow = row;
  }
  ASSERT_GE(undoRow, 0);
  ASSERT_GE(playRow, 0);
  static_cast<QKeySequenceEdit*>(keys->cellWidget(playRow, 1))->setKeySequence(QKeySequence(Qt::CTRL | Qt::Key_Z));
  QString error;
  EXPECT_FALSE(dialog.apply(&error));
  EXPECT_TRUE(error.contains("taken by both")) << error.toStdString();
  static_cast<QKeySequenceEdit*>(keys->cellWidget(playRow, 1))->setKeySequence(QKeySequence(Qt::Key_P));
  dialog.threads()->setValue(3);
  ASSERT_TRUE(dialog.apply(&error)) << error.toStdString();
  EXPECT_EQ(window_->action("play")->shortcut(), QKeySequence(Qt::Key_P));
  EXPECT_EQ(EditorPreferences::load().renderThreads, 3);
  // A new window takes the shortcut too; a command's second default key
  // stays (Redo's Ctrl+Y).
  MainWindow other;
  EXPECT_EQ(other.action("play")->shortcut(), QKeySequence(Qt::Key_P));
  EXPECT_EQ(other.action("redo")->shortcuts(),
            (QList<QKeySequence>{QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), QKeySequence(Qt::CTRL | Qt::Key_Y)}));
  // Backspace clears a shortcut rather than becoming it.
  auto* playKey = static_cast<QKeySequenceEdit*>(keys->cellWidget(playRow, 1));
  playKey->setFocus();
  QTest::keyClick(playKey, Qt::Key_Backspace);
  EXPECT_TRUE(playKey->keySequence().isEmpty());
  ASSERT_TRUE(dialog.apply(&error)) << error.toStdString();
  EXPECT_TRUE(window_->action("play")->shortcut().isEmpty());
  QSettings().remove("shortcuts");
  QSettings().remove("render/threads");
  EXPECT_TRUE(dialog.playTestTone(&error)) << error.toStdString();
}

TEST_F(Bank, MelodiesGoOutAsVsqAndMidiAndComeBack) {
  open({{480, 480, "さ", 60}, {480, 240, "く", 62}, {480, 960, "ら", 64}});
  const std::vector<Read> song = soundingNotes(doc().engine());
  for (const char* name : {"song.vsq", "song.mid", "song.musicxml"}) {
    SCOPED_TRACE(name);
    const QString path = QString::fromStdString(dir_.file(name));
    ASSERT_TRUE(window_->exportSequence(path));
    ASSERT_TRUE(window_->importSequence(path, -1, -1));
    MainWindow* imported = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
      auto* candidate = qobject_cast<MainWindow*>(widget);
      if (candidate != nullptr && candidate != window_) imported = candidate;
    }
    ASSERT_NE(imported, nullptr);
    EXPECT_EQ(soundingNotes(imported->document()->engine()), song);
    EXPECT_TRUE(imported->document()->modified());
    EXPECT_TRUE(imported->document()->path().isEmpty());
    // Saved and exported beside the file, exported in its own form.
    EXPECT_EQ(imported->suggestedPath("snt").toStdString(), dir_.file("song.snt"));
    EXPECT_EQ(imported->suggestedPath("export").toStdString(), dir_.file(name));
    delete imported;
  }
  // A file that is no sequence: nothing opens.
  const std::string bad = dir_.file("bad.mid");
  writeFile(bad, "MThd nonsense");
  whenModal([](QWidget* box) { static_cast<QDialog*>(box)->reject(); });
  EXPECT_FALSE(window_->importSequence(QString::fromStdString(bad), -1, -1));
}

}  // namespace
