// The editor's test fixture: a main window on Qt's offscreen platform,
// projects written for it, and a hand on the mouse.
#pragma once

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QMenu>
#include <QMouseEvent>
#include <QTest>
#include <QTimer>
#include <functional>
#include <string>
#include <vector>

#include "editing/noteman.h"
#include "tests/testutil.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/player.h"
#include "ui/shell/texts.h"
#include "ui/views/pianoroll.h"
#include "ui/views/rolleditor.h"
#include "ui/views/timescale.h"

// QString in failure messages as text.
inline void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace editortest {

// Runs the event loop until `done` holds or `ms` have passed; whether it
// held. (QTest's QTRY macros return from the test on failure, unseen by
// GoogleTest.)
inline bool waitFor(const std::function<bool()>& done, int ms) {
  QElapsedTimer clock;
  clock.start();
  while (!done()) {
    if (clock.elapsed() > ms) return false;
    QTest::qWait(10);
  }
  return true;
}

struct Note {
  int delta;
  int length;
  const char* lyric;
  int noteNum;
  std::string extra = "";  // more lines for the note section
};

// A 2.0 project of the given notes, singing with `voiceDir`.
inline std::string project(const std::vector<Note>& notes, const std::string& voiceDir = "") {
  std::string text =
      "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120.00\nProjectName=test\nVoiceDir=" + voiceDir +
      "\nMode2=True\n";
  char section[32];
  for (size_t i = 0; i < notes.size(); ++i) {
    snprintf(section, sizeof section, "[#%04zu]\n", i);
    text += section;
    text += "Delta=" + std::to_string(notes[i].delta) + "\nDuration=" + std::to_string(notes[i].length) +
            "\nLyric=" + notes[i].lyric + "\nNoteNum=" + std::to_string(notes[i].noteNum) + "\nIntensity=100\n" +
            notes[i].extra;
  }
  return text + "[#TRACKEND]\n";
}

struct Read {
  int64_t start;
  int length;
  std::string lyric;
  int noteNum;
  bool operator==(const Read& o) const {
    return start == o.start && length == o.length && lyric == o.lyric && noteNum == o.noteNum;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Read& r) {
  return out << "{" << r.start << ", " << r.length << ", " << r.lyric << ", " << r.noteNum << "}";
}

// The sounding notes of the engine with their absolute starts.
inline std::vector<Read> soundingNotes(ctonm2& engine) {
  std::vector<Read> out;
  int64_t position = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    position += engine.notes[i].Delta;
    if (!ctonm2::is_r(engine.notes[i].Lyric)) {
      out.push_back({position, engine.notes[i].Length, engine.notes[i].Lyric, engine.notes[i].NoteNum});
    }
  }
  return out;
}

// Runs `step` on the next modal dialog once it is up.
inline void whenModal(std::function<void(QWidget*)> step) {
  QTimer::singleShot(0, [step] {
    QWidget* modal = QApplication::activeModalWidget();
    if (modal == nullptr) {
      whenModal(step);  // not up yet
      return;
    }
    step(modal);
  });
}

class Editor : public ::testing::Test {
 protected:
  void SetUp() override {
    removeCoreTexts();  // the texts as written
    window_ = new MainWindow;
    window_->resize(1000, 640);
    window_->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window_));
    roll_ = window_->editor()->roll();
    scale_ = window_->editor()->timeScale();
    scale_->setPixelsPerTick(0.1);
    scale_->setRowHeight(14);
    scale_->setScrollX(0);
    scale_->setScrollY(scale_->noteToY(80) + scale_->scrollY());      // note 80 in the top row
    window_->findChild<QComboBox*>("grid")->setCurrentIndex(3);       // 1/16: 120 ticks
    window_->findChild<QComboBox*>("penLength")->setCurrentIndex(1);  // 1/4: 480 ticks
  }
  void TearDown() override {
    Player::instance().stop();
    delete window_;  // no close: a modified project would ask
  }

  EditorDocument& doc() { return *window_->document(); }
  void open(const std::vector<Note>& notes, const std::string& voiceDir = "") {
    const std::string path = dir_.file("song.snt");
    ASSERT_TRUE(writeFile(path, project(notes, voiceDir)));
    ASSERT_TRUE(window_->openProject(QString::fromStdString(path), true));
    scale_->setScrollX(0);
    scale_->setScrollY(scale_->noteToY(80) + scale_->scrollY());
  }
  // The middle of the place of `tick` on the row of `note`.
  QPoint at(int64_t tick, int note) {
    return QPoint(static_cast<int>(scale_->tickToX(static_cast<double>(tick))) + 2,
                  scale_->noteToY(note) + scale_->rowHeight() / 2);
  }
  QPoint centreOf(int index) { return roll_->noteRect(index).center().toPoint(); }
  void click(QPoint p, Qt::KeyboardModifiers mods = Qt::NoModifier) {
    QTest::mouseClick(roll_, Qt::LeftButton, mods, p);
  }
  // A press, moves on the way and a release, as a hand drags.
  void drag(QPoint from, QPoint to, Qt::KeyboardModifiers mods = Qt::NoModifier, bool release = true) {
    QTest::mousePress(roll_, Qt::LeftButton, mods, from);
    for (int k = 1; k <= 4; ++k) {
      const QPoint p = from + (to - from) * k / 4;
      QMouseEvent move(QEvent::MouseMove, p, roll_->mapToGlobal(p), Qt::NoButton, Qt::LeftButton, mods);
      QApplication::sendEvent(roll_, &move);
    }
    if (release) QTest::mouseRelease(roll_, Qt::LeftButton, mods, to);
  }
  void trigger(const char* name) {
    QAction* act = window_->action(name);
    ASSERT_NE(act, nullptr) << name;
    act->trigger();
  }
  QString title(const char* name) { return window_->action(name)->text(); }

  FakeHome home_;
  TempDir dir_;
  MainWindow* window_ = nullptr;
  PianoRoll* roll_ = nullptr;
  TimeScale* scale_ = nullptr;
};

// Runs `step` on the next popup menu once it is up, then closes it.
inline void whenPopup(std::function<void(QMenu*)> step) {
  QTimer::singleShot(0, [step] {
    auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
    if (menu == nullptr) {
      whenPopup(step);
      return;
    }
    step(menu);
    menu->close();
  });
}

// The action of a menu (or of its submenus) with this text, "&" ignored.
inline QAction* findAction(QMenu* menu, const QString& text) {
  for (QAction* act : menu->actions()) {
    if (QString(act->text()).remove('&') == text) return act;
    if (act->menu() != nullptr) {
      if (QAction* found = findAction(act->menu(), text)) return found;
    }
  }
  return nullptr;
}

}  // namespace editortest
