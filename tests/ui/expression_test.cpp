// Editing a note's expression in the editor: pitch points, vibrato,
// envelope and intensity, the note dialogs, tempo and time signatures on
// the ruler, layers. Every gesture is checked against the core's state,
// undone and redone.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QImage>
#include <QInputDialog>
#include <QLineEdit>
#include <QSpinBox>
#include <QTableWidget>
#include <algorithm>
#include <cmath>
#include <functional>

#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "tests/ui/editor_fixture.h"
#include "tests/voicebank/bank.h"
#include "ui/shell/notedialogs.h"
#include "ui/views/handles.h"
#include "ui/views/rulers.h"
#include "ui/views/valuepane.h"

using namespace editortest;

namespace {

const std::string kPitchLine = "PBS=-40;-20\nPBW=40,60\nPBY=5,\n";
const std::string kVibrato = "VBR=50,180,40,20,20,0,0\n";

std::vector<float> list(const float* values) {
  return values != nullptr ? std::vector<float>(values + 1, values + 1 + floatListCount(values)) : std::vector<float>();
}

class Expression : public Editor {
 protected:
  NoteData& note(int i) { return *doc().notes().getNote(i); }
  // Press at one point, move and release at another (in a widget).
  void dragIn(QWidget* widget, QPointF from, QPointF to) {
    QTest::mousePress(widget, Qt::LeftButton, Qt::NoModifier, from.toPoint());
    for (int k = 1; k <= 3; ++k) {
      const QPointF p = from + (to - from) * k / 3.0;
      QMouseEvent move(QEvent::MouseMove, p, widget->mapToGlobal(p), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
      QApplication::sendEvent(widget, &move);
    }
    QTest::mouseRelease(widget, Qt::LeftButton, Qt::NoModifier, to.toPoint());
  }
  double msPerPixel() { return 125.0 / doc().engine().get_tempo(0) / scale_->pixelsPerTick(); }
  // Undo, check, redo, check: the step replays exactly.
  void undoRedo(const std::function<void()>& after, const std::function<void()>& before) {
    trigger("undo");
    before();
    trigger("redo");
    after();
  }
  // Opens the note menu over a point and triggers the item named `text`.
  void rulerMenu(int x, const QString& text) {
    Ruler* ruler = window_->editor()->ruler();
    bool found = false;
    whenPopup([&](QMenu* menu) {
      QAction* act = findAction(menu, text);
      found = act != nullptr && act->isEnabled();
      if (found) act->trigger();
    });
    const QPoint at(x, ruler->height() / 2);
    QContextMenuEvent event(QContextMenuEvent::Mouse, at, ruler->mapToGlobal(at));
    QApplication::sendEvent(ruler, &event);
    EXPECT_TRUE(found) << text.toStdString();
  }
  void noteMenu(QPoint at, const QString& text) {
    bool found = false;
    whenPopup([&](QMenu* menu) {
      QAction* act = findAction(menu, text);
      found = act != nullptr && act->isEnabled();
      if (found) act->trigger();
    });
    QContextMenuEvent event(QContextMenuEvent::Mouse, at, roll_->mapToGlobal(at));
    QApplication::sendEvent(roll_, &event);
    EXPECT_TRUE(found) << text.toStdString();
  }
};

TEST_F(Expression, APitchHandleMovesItsPointInTimeAndHeight) {
  TestBank bank;  // the curve is built over what the notes sing
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  open({{480, 480, "a", 70, kPitchLine}, {480, 480, "a", 72, kPitchLine}}, bank.folder());
  click(centreOf(0));
  roll_->grab();  // a paint: the curves are built
  // Point 1 (the end of the first segment) sits 0 ms after the start at
  // 50 cents; dragged 4 pixels right and a row up.
  const QPointF handle = roll_->pitchPointPosition(0, 1);
  ASSERT_EQ(roll_->handleAt(handle).kind, PianoRoll::kPitchPoint);
  dragIn(roll_, handle, handle + QPointF(4, -scale_->rowHeight()));
  const double dMs = 4 * msPerPixel();
  auto after = [&] {
    EXPECT_NEAR(note(0).PBW[1], 40 + dMs, 0.01);
    EXPECT_NEAR(note(0).PBW[2], 60 - dMs, 0.01);  // the next point stays where it was
    EXPECT_FLOAT_EQ(note(0).PBY[1], 15.0f);       // 100 cents more, in tens of cents
    EXPECT_EQ(list(note(0).PBS), (std::vector<float>{-40, -20}));
  };
  auto before = [&] {
    EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 60}));
    EXPECT_FLOAT_EQ(note(0).PBY[1], 5.0f);  // (the history keeps a height per segment)
  };
  after();
  EXPECT_EQ(title("undo"), "ピッチの変更を元に戻す");
  EXPECT_EQ(doc().history().steps(), 1);
  undoRedo(after, before);

  // The curve drawn follows: its value at the moved point is about 150 cents.
  roll_->grab();
  const NoteData& n = note(0);
  ASSERT_NE(n._pitch, nullptr);
  const double lead = n._preuttr + n._stp + n.stptrim;
  const int at = static_cast<int>(std::lround((lead + dMs) / ctonm2::kPitchStepMs));  // point 1, dMs after the start
  ASSERT_LT(at, n._pitchlen);
  EXPECT_NEAR(n._pitch[at], 150.0, 20.0);
}

TEST_F(Expression, PointsAreAddedDeletedAndShapedFromTheMenu) {
  open({{480, 480, "さ", 70, kPitchLine}});
  scale_->setPixelsPerTick(1.0);  // a millisecond is about a pixel
  scale_->setScrollX(300);
  click(centreOf(0));
  // A point goes where the menu was opened, the later points staying put:
  // inside the second segment, then past the last point.
  const double msPerPixel = 1.0 / (roll_->pitchPointPosition(0, 2).x() - roll_->pitchPointPosition(0, 1).x()) * 60.0;
  noteMenu((roll_->pitchPointPosition(0, 1) + QPointF(20, 0)).toPoint(), "Add Point Here");
  std::vector<float> widths = list(note(0).PBW);
  ASSERT_EQ(widths.size(), 3u);
  EXPECT_EQ(widths[0], 40);
  EXPECT_NEAR(widths[1], 20 * msPerPixel, 2 * msPerPixel);
  EXPECT_FLOAT_EQ(widths[1] + widths[2], 60);
  EXPECT_EQ(pitchPoints(doc().engine(), 0).size(), 4u);
  EXPECT_EQ(title("undo"), "ピッチの変更を元に戻す");
  noteMenu(roll_->pitchPointPosition(0, 2).toPoint(), "Delete Point");
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 60}));
  noteMenu((roll_->pitchPointPosition(0, 2) + QPointF(30, 0)).toPoint(), "Add Point Here");
  widths = list(note(0).PBW);
  ASSERT_EQ(widths.size(), 3u);
  EXPECT_NEAR(widths[2], 30 * msPerPixel, 2 * msPerPixel);
  trigger("undo");
  noteMenu((roll_->pitchPointPosition(0, 1) + QPointF(2, 0)).toPoint(), "Linear");
  EXPECT_EQ(doc().notes().getPitchKind(0, 2), 's');
  trigger("undo");
  EXPECT_NE(doc().notes().getPitchKind(0, 2), 's');
  noteMenu(centreOf(0), "Reset to Default");
  EXPECT_EQ(list(note(0).PBS), (std::vector<float>{-40}));
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{80}));
}

// Pixels of the pitch line's red inside a rectangle of a picture of the roll.
int redPixels(const QImage& image, const QRect& area) {
  int count = 0;
  for (int y = std::max(area.top(), 0); y <= std::min(area.bottom(), image.height() - 1); ++y) {
    for (int x = std::max(area.left(), 0); x <= std::min(area.right(), image.width() - 1); ++x) {
      const QColor c = image.pixelColor(x, y);
      count += c.red() > 150 && c.green() < 110 && c.blue() < 120 ? 1 : 0;
    }
  }
  return count;
}

TEST_F(Expression, LyricsStayLegibleAndPitchLinesStayDrawnThroughPlayback) {
  TestBank bank;
  writeVowelBank(bank, 0.6, "a.wav=a,30,60,-400,40,10\n");
  std::vector<Note> notes;
  for (int i = 0; i < 12; ++i) notes.push_back({480, 480, "a", 60 + i % 2 * 5, kPitchLine});
  open(notes, bank.folder());
  scale_->setPixelsPerTick(0.25);
  auto lyricAreas = [&] {
    std::vector<QRectF> areas;
    const QFontMetrics metrics(roll_->lyricFont());
    for (int i = 0; i < doc().engine().noteCount; ++i) areas.push_back(roll_->lyricRect(i, metrics));
    return areas;
  };
  // Selected: the handles at the start leave the lyric alone, and no line crosses it.
  click(centreOf(1));
  std::vector<QRectF> areas = lyricAreas();
  ASSERT_FALSE(areas[1].isEmpty());
  for (size_t k = 0; k < pitchPoints(doc().engine(), 1).size(); ++k) {
    const QPointF h = roll_->pitchPointPosition(1, static_cast<int>(k));
    const QRectF handle(h.x() - PianoRoll::kHandleRadius, h.y() - PianoRoll::kHandleRadius,
                        2 * PianoRoll::kHandleRadius, 2 * PianoRoll::kHandleRadius);
    EXPECT_FALSE(handle.intersects(areas[1])) << "point " << k;
  }
  QImage picture = roll_->grab().toImage();
  for (int i : {0, 1, 2}) {
    EXPECT_EQ(redPixels(picture, areas[static_cast<size_t>(i)].toAlignedRect().adjusted(1, 1, -1, -1)), 0) << i;
  }
  // Zoomed far out, lyrics are cut short or left out, never over a neighbour.
  scale_->setPixelsPerTick(0.03);
  areas = lyricAreas();
  for (size_t i = 0; i < areas.size(); ++i) {
    if (areas[i].isEmpty()) continue;
    EXPECT_LE(areas[i].right(), roll_->noteRect(static_cast<int>(i)).right()) << i;
    if (i + 1 < areas.size()) {
      EXPECT_FALSE(areas[i].intersects(areas[i + 1])) << i;
    }
  }

  // Playing the song to its end (the render frees the engine's curves when
  // it is done): the lines stay.
  scale_->setPixelsPerTick(0.25);
  window_->action("selectAll")->trigger();
  doc().notes().ReleaseAll();
  doc().touch();
  const QRect lines = roll_->rect();
  const int before = redPixels(roll_->grab().toImage(), lines);
  ASSERT_GT(before, 100);
  trigger("play");
  ASSERT_TRUE(Player::instance().active()) << window_->lastMessage().toStdString();
  ASSERT_TRUE(waitFor([&] { return doc().engine().renderState.load() == 0; }, 20000));
  EXPECT_GT(redPixels(roll_->grab().toImage(), lines), before / 2);
  Player::instance().stop();
}

TEST_F(Expression, PitchLinesAndVibratosAreCopiedBetweenNotes) {
  open({{480, 480, "さ", 70, kPitchLine + kVibrato}, {480, 480, "く", 72}});
  click(centreOf(0));
  noteMenu(centreOf(0), "Copy Pitch Line");
  noteMenu(centreOf(0), "Copy Vibrato");
  click(centreOf(1));
  noteMenu(centreOf(1), "Paste Pitch Line");
  EXPECT_EQ(list(note(1).PBW), (std::vector<float>{40, 60}));
  noteMenu(centreOf(1), "Paste Vibrato");
  EXPECT_EQ(note(1).VBR[2], 40);
  EXPECT_EQ(title("undo"), "ビブラートの変更を元に戻す");
  noteMenu(centreOf(1), "Clear");
  EXPECT_EQ(note(1).VBR[0], 0);
  noteMenu(centreOf(1), "Add Default");
  EXPECT_EQ(note(1).VBR[0], 70);  // the default
}

TEST_F(Expression, VibratoHandlesChangeLengthDepthAndFades) {
  open({{480, 960, "さ", 70, kVibrato}});
  click(centreOf(0));
  const QRectF box = roll_->noteRect(0);
  VibratoBox v = vibratoBox(doc().engine(), 0, box, *scale_);
  ASSERT_FALSE(v.box.isNull());
  // Depth: one row up is 100 cents more.
  dragIn(roll_, v.depth, v.depth - QPointF(0, scale_->rowHeight()));
  EXPECT_EQ(note(0).VBR[2], 140);
  EXPECT_EQ(title("undo"), "ビブラートの変更を元に戻す");
  // Length: the left edge to the middle of the note.
  v = vibratoBox(doc().engine(), 0, box, *scale_);
  dragIn(roll_, v.length, QPointF(box.left() + box.width() * 0.75, v.length.y()));
  EXPECT_NEAR(note(0).VBR[0], 25, 1);
  v = vibratoBox(doc().engine(), 0, box, *scale_);
  dragIn(roll_, v.fadeIn, QPointF(v.box.center().x(), v.fadeIn.y()));
  EXPECT_NEAR(note(0).VBR[3], 50, 2);
  EXPECT_EQ(doc().history().steps(), 3);
  trigger("undo");
  trigger("undo");
  trigger("undo");
  EXPECT_EQ(note(0).VBR[2], 40);
  EXPECT_EQ(note(0).VBR[0], 50);
  EXPECT_EQ(note(0).VBR[3], 20);
}

TEST_F(Expression, EnvelopePointsAndIntensityBarsAreDraggedInTheLane) {
  open({{480, 960, "さ", 70}, {960, 960, "く", 70}});
  scale_->setPixelsPerTick(1.0);
  scale_->setScrollX(300);
  ValuePane* pane = window_->editor()->valuePane();
  click(centreOf(0));
  // Point 2 (p2, v2) of the default envelope: 5 + 1 ms in, at 100 %.
  const QPointF point = pane->envelopePointPosition(0, 2);
  const double ppm = 1.0 / msPerPixel();
  dragIn(pane, point, point + QPointF(20 * ppm, pane->levelToY(50) - pane->levelToY(100)));
  EXPECT_NEAR(note(0).Envelope[1], 21.0, 1.1);  // p2 grew by 20 ms (to a pixel)
  EXPECT_NEAR(note(0).Envelope[4], 50.0, 1.0);  // v2 down to 50 %
  EXPECT_EQ(title("undo"), "エンベロープの変更を元に戻す");
  trigger("undo");
  EXPECT_FLOAT_EQ(note(0).Envelope[1], 1.0f);
  EXPECT_FLOAT_EQ(note(0).Envelope[4], 100.0f);

  // Intensity: both notes selected, one bar dragged to 150 %.
  window_->action("showIntensity")->trigger();
  click(centreOf(1), Qt::ShiftModifier);
  const QPointF top = pane->intensityTop(1);
  dragIn(pane, top, QPointF(top.x(), pane->levelToY(150)));
  EXPECT_NEAR(note(0).Intensity, 150, 1);
  EXPECT_NEAR(note(1).Intensity, 150, 1);
  EXPECT_EQ(title("undo"), "ボリュームの変更を元に戻す");
  trigger("undo");
  EXPECT_EQ(note(0).Intensity, 100);
  EXPECT_EQ(note(1).Intensity, 100);
}

TEST_F(Expression, ThePropertyDialogLeavesFieldsThatDifferAlone) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 72}});
  click(centreOf(0));
  click(centreOf(1), Qt::ShiftModifier);
  {
    NotePropertiesDialog dialog(&doc());
    EXPECT_EQ(dialog.field("lyric")->text(), "");  // differs
    EXPECT_EQ(dialog.field("note")->text(), "");
    EXPECT_EQ(dialog.field("intensity")->text(), "100");
    EXPECT_EQ(dialog.field("preutterance")->text(), "not set");
    dialog.field("intensity")->setText("80");
    dialog.field("preutterance")->setText("45.5");
    dialog.field("tempo")->setText("none");
    QString error;
    ASSERT_TRUE(dialog.apply(&error)) << error.toStdString();
  }
  auto after = [&] {
    EXPECT_EQ(note(0).Intensity, 80);
    EXPECT_EQ(note(1).Intensity, 80);
    EXPECT_FLOAT_EQ(note(0).PreUtterance, 45.5f);
    EXPECT_STREQ(note(0).Lyric, "さ");  // left alone
    EXPECT_STREQ(note(1).Lyric, "く");
    EXPECT_EQ(note(1).NoteNum, 72);
  };
  after();
  EXPECT_EQ(title("undo"), "音符の変更を元に戻す");
  undoRedo(after, [&] {
    EXPECT_EQ(note(0).Intensity, 100);
    EXPECT_TRUE(std::isnan(note(1).PreUtterance));
  });

  // Values out of range are refused with the range, and nothing changes.
  NotePropertiesDialog dialog(&doc());
  dialog.field("length")->setText("20");
  QString error;
  EXPECT_FALSE(dialog.apply(&error));
  EXPECT_NE(error.indexOf("from 30 to 7680"), -1) << error.toStdString();
  dialog.field("length")->setText("960");
  dialog.field("note")->setText("A4");
  ASSERT_TRUE(dialog.apply(&error));
  EXPECT_EQ(soundingNotes(doc().engine()), (std::vector<Read>{{480, 960, "さ", 69}, {960, 960, "く", 69}}));
}

TEST_F(Expression, TheDetailDialogEditsOneNotesNumbersInOneStep) {
  open({{480, 480, "さ", 70, kPitchLine + kVibrato}});
  NoteDetailDialog dialog(&doc(), 0);
  ASSERT_EQ(dialog.pitchTable()->rowCount(), 2);
  EXPECT_EQ(dialog.pitchTable()->item(0, 1)->text(), "50");  // 5 tens of cents
  dialog.pitchTable()->item(1, 0)->setText("75");
  dialog.vibrato(2)->setValue(65);
  dialog.envelope(8)->setValue(50.0);  // p4, the fall at the end
  dialog.apply();
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 75}));
  EXPECT_EQ(note(0).VBR[2], 65);
  EXPECT_FLOAT_EQ(note(0).Envelope[8], 50.0f);
  EXPECT_EQ(doc().history().steps(), 1);
  trigger("undo");
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 60}));
  EXPECT_EQ(note(0).VBR[2], 40);
  EXPECT_FLOAT_EQ(note(0).Envelope[8], 35.0f);
}

TEST_F(Expression, TheAssistantGivesLinesAndVibratosToLongEnoughNotes) {
  open({{480, 960, "さ", 70}, {960, 240, "く", 72}, {240, 960, "ら", 74}});
  trigger("selectAll");
  AssistantDialog dialog(&doc());
  dialog.depth()->setValue(55);
  dialog.share()->setValue(60);
  dialog.shortest()->setValue(480);
  EXPECT_EQ(dialog.apply(), 2);
  EXPECT_EQ(note(0).VBR[2], 55);
  EXPECT_EQ(note(0).VBR[0], 60);
  EXPECT_EQ(note(1).VBR[0], 0);  // shorter than 480 ticks
  EXPECT_EQ(list(note(2).PBW), (std::vector<float>{80}));
  EXPECT_EQ(doc().history().steps(), 1);
  trigger("undo");
  EXPECT_EQ(note(0).VBR[0], 0);
  EXPECT_EQ(note(2).PBW, nullptr);
}

TEST_F(Expression, TemposAndTimeSignaturesAreSetOnTheRuler) {
  open({{480, 480, "さ", 70}, {480, 480, "く", 72}, {480, 480, "ら", 74}});
  Ruler* ruler = window_->editor()->ruler();
  // The ruler's menu at 960 offers a tempo there, starting from the song's.
  const int x960 = static_cast<int>(scale_->tickToX(960.0)) + 1;
  EXPECT_EQ(ruler->menuTick(x960), 960);
  whenModal([](QWidget* box) {
    auto* input = static_cast<QInputDialog*>(box);
    EXPECT_DOUBLE_EQ(input->doubleValue(), 120.0);
    input->setDoubleValue(90.0);
    input->accept();
  });
  rulerMenu(x960, "Set Tempo Here (Measure 1)…");
  EXPECT_FLOAT_EQ(note(1).Tempo, 90.0f);  // the note starting at 960
  EXPECT_EQ(title("undo"), "テンポの変更を元に戻す");
  EXPECT_NEAR(doc().notes().Ticks2MSec(1440), 960 * 125.0 / 120 + 480 * 125.0 / 90, 0.01);
  EXPECT_FLOAT_EQ(doc().model().tempoAt(1000), 90.0f);
  trigger("undo");
  EXPECT_FLOAT_EQ(note(1).Tempo, 0.0f);
  // Where no note starts (bar 1 here), a change of its own goes there.
  ruler->setTempoAt(0, 100.0f);
  ASSERT_EQ(doc().engine().noteCount, 4);
  EXPECT_FLOAT_EQ(note(0).Tempo, 100.0f);
  EXPECT_EQ(soundingNotes(doc().engine())[0].start, 480);
  trigger("undo");
  EXPECT_EQ(doc().engine().noteCount, 3);

  // The signature dialog opens with the one in force, and OK alone changes nothing.
  const int bar3 = static_cast<int>(scale_->tickToX(2 * 1920.0)) + 1;
  whenModal([](QWidget* box) {
    EXPECT_EQ(box->findChild<QSpinBox*>("signatureBeats")->value(), 4);
    EXPECT_EQ(box->findChild<QComboBox*>("signatureUnit")->currentText(), "4");
    static_cast<QDialog*>(box)->accept();
  });
  rulerMenu(bar3, "Time Signature at Measure 3…");
  EXPECT_EQ(doc().scale().count(), 1);
  whenModal([](QWidget* box) {
    box->findChild<QSpinBox*>("signatureBeats")->setValue(3);
    static_cast<QDialog*>(box)->accept();
  });
  rulerMenu(bar3, "Time Signature at Measure 3…");
  EXPECT_EQ(doc().scale().count(), 2);
  EXPECT_EQ(ruler->measureStart(3), 2 * 1920 + 1440);  // two 4/4 bars, then 3/4
  EXPECT_EQ(ruler->measureAt(2 * 1920 + 1500), 3);
  EXPECT_EQ(title("undo"), "拍子記号を元に戻す");
  whenModal([](QWidget* box) {
    EXPECT_EQ(box->findChild<QSpinBox*>("signatureBeats")->value(), 3);  // in force at measure 4
    static_cast<QDialog*>(box)->reject();
  });
  rulerMenu(static_cast<int>(scale_->tickToX(2 * 1920.0 + 1440)) + 1, "Time Signature at Measure 4…");
  ruler->removeTimeSignature(2);
  EXPECT_EQ(doc().scale().count(), 1);
  trigger("undo");
  EXPECT_EQ(doc().scale().count(), 2);
  trigger("undo");
  EXPECT_EQ(doc().scale().count(), 1);
}

TEST_F(Expression, NewNotesGoOnTheTargetLayerAndMutedLayersStaySilent) {
  window_->findChild<QComboBox*>("layer")->setCurrentIndex(3);  // layer 3 (index 2)
  window_->action("toolPen")->trigger();
  click(at(480, 70));
  EXPECT_EQ(note(0).layer, 2);
  auto* mute = window_->findChild<QCheckBox*>("layerOn2");
  ASSERT_NE(mute, nullptr);
  mute->setChecked(false);
  EXPECT_EQ(doc().engine().layerEnabled[2], 0);
  mute->setChecked(true);
  EXPECT_EQ(doc().engine().layerEnabled[2], 1);
}

}  // namespace

namespace {

TEST_F(Expression, ResizingANoteStretchesItsPitchLineInOneStep) {
  open({{480, 480, "さ", 70, kPitchLine}});
  click(centreOf(0));
  const QRectF box = roll_->noteRect(0);
  const QPoint edge(static_cast<int>(box.right()) - 2, static_cast<int>(box.center().y()) + 4);
  dragIn(roll_, edge, edge + QPoint(static_cast<int>(480 * scale_->pixelsPerTick()), 0));
  EXPECT_EQ(note(0).Length, 960);
  // Only the part after the note's start is stretched: the second segment.
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 120}));
  trigger("undo");
  EXPECT_EQ(note(0).Length, 480);
  EXPECT_EQ(list(note(0).PBW), (std::vector<float>{40, 60}));
}

}  // namespace
