#include "engine/sntman.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "engine/ctonm2.h"
#include "tests/engine/notes.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "voicebank/voiceset.h"

namespace {

const char kKaUtf8[] = "\xe3\x81\x8b";  // か
const char kKaSjis[] = "\x82\xa9";
const char kSaUtf8[] = "\xe3\x81\x95";  // さ
const char kSaSjis[] = "\x82\xb3";

// Two notes, deltas 0 and 480, lengths 240 and 480, with most fields set.
void buildProject(ctonm2& engine) {
  engine.tempo = 120.0f;
  engine.set_projectName("demo");
  engine.set_voiceDir("/banks/alto");
  engine.set_charset("UTF-8");
  NoteData ka = makeNote(kKaUtf8, 60, 0, 240);
  ka.PreUtterance = NAN;
  ka.VoiceOverlap = 10.0f;
  strcpy_n(ka.Flags, "g-5", sizeof ka.Flags);
  strcpy_n(ka.Label, "A", sizeof ka.Label);
  ka.PBS = floatList({-40.0f, 5.0f});
  ka.PBW = floatList({30.0f, 50.0f});
  ka.PBY = floatList({2.0f});
  ka.PBM = byteList("sr");
  NoteData sa = makeNote(kSaUtf8, 62, 480, 480);
  sa.PreUtterance = 0.0f;
  sa.VoiceOverlap = NAN;
  sa.stptrim = 1.5f;
  sa.layer = 1;
  const float extension[5] = {1.0f, 10.0f, 80.0f, 10.0f, 60.0f};
  memcpy(&sa.Envelope[11], extension, sizeof extension);
  const int16_t vbr[10] = {65, 180, 35, 20, 20, 0, 0, 0, 0, 0};
  memcpy(sa.VBR, vbr, sizeof vbr);
  sa.PitchCount = 3;
  sa.Pitches = static_cast<int16_t*>(malloc(3 * sizeof(int16_t)));
  const int16_t pitches[3] = {5, 7, 9};
  memcpy(sa.Pitches, pitches, sizeof pitches);
  engine.insert_note(0, &ka);
  engine.insert_note(1, &sa);
}

const std::string kForm20 = std::string() +
    "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTimeSignatures=(3/4/0),\n"
    "Tempo=120.00\nProjectName=demo\nOutFile=\nVoiceDir=${DEFAULT}/alto/\nFlags=\nMode2=True\n"
    "[#0000]\nDelta=0\nDuration=240\nLength=480\nLyric=" + kKaUtf8 + "\nLabel=A\nNoteNum=60\n"
    "VoiceOverlap=10.00\nStartPoint=0.00\nIntensity=100\nModulation=100\nFlags=g-5\n"
    "PBS=-40.0,5.0\nPBW=30.0,50.0\nPBY=2.0\nPBM=s,r\n"
    "Envelope=5.0,1.0,1.0,100.0,100.0,100.0,100.0,0.0,35.0,1.0,100.0,0.0,0.0,0.0,0.0,0.0\n"
    "VBR=0,0,0,0,0,0,0,0,0,0\n"
    "[#0001]\nDelta=480\nDuration=480\nLength=480\nLyric=" + kSaUtf8 + "\nNoteNum=62\n"
    "PreUtterance=0.00\nStartPoint=0.00\nstptrim=1.5000\nIntensity=100\nModulation=100\n"
    "Envelope=5.0,1.0,1.0,100.0,100.0,100.0,100.0,0.0,35.0,1.0,100.0,1.0,10.0,80.0,10.0,60.0\n"
    "VBR=65,180,35,20,20,0,0,0,0,0\nlayer=1\n"
    "[#TRACKEND]\n";

const std::string kForm12 = std::string() +
    "[#VERSION]\r\nSNT Version1.2\r\n[#SETTING]\r\n"
    "Tempo=120.00\r\nProjectName=demo\r\nOutFile=\r\nVoiceDir=${DEFAULT}/alto\r\nFlags=\r\nMode2=True\r\n"
    "[#0000]\r\nLength=240\r\nLyric=" + kKaSjis + "\r\nNoteNum=60\r\n"
    "VoiceOverlap=10.00\r\nStartPoint=0.00\r\nIntensity=100\r\nModulation=100\r\nFlags=g-5\r\n"
    "PBS=-40.0,5.0\nPBW=30.0,50.0\nPBY=2.0\nPBM=s,r\n"
    "Envelope=5.0,1.0,1.0,100.0,100.0,100.0,100.0,0.0,35.0,1.0,100.0,0.0\r\n"
    "VBR=0,0,0,0,0,0,0,0,0,0\r\n"
    "[#0001]\r\nLength=240\r\nLyric=R\r\nNoteNum=60\r\n"
    "[#0002]\r\nLength=480\r\nLyric=" + kSaSjis + "\r\nNoteNum=62\r\n"
    "PreUtterance=0.00\r\nStartPoint=0.00\r\nIntensity=100\r\nModulation=100\r\nFlags=\r\n"
    "Envelope=5.0,1.0,1.0,100.0,100.0,100.0,100.0,0.0,35.0,1.0,100.0,1.0\r\n"
    "VBR=65,180,35,20,20,0,0,0,0,0\r\n"
    "PitchBend=7,7,7\n"
    "[#TRACKEND]\r\n";

// Compares line by line, so that a failure names the first differing line.
void expectSameLines(const std::string& actual, const std::string& expected) {
  size_t a = 0, e = 0;
  for (int line = 1; a < actual.size() || e < expected.size(); ++line) {
    const size_t aEnd = actual.find('\n', a), eEnd = expected.find('\n', e);
    const std::string got = actual.substr(a, aEnd == std::string::npos ? std::string::npos : aEnd - a + 1);
    const std::string want = expected.substr(e, eEnd == std::string::npos ? std::string::npos : eEnd - e + 1);
    ASSERT_EQ(got, want) << "line " << line;
    a = aEnd == std::string::npos ? actual.size() : aEnd + 1;
    e = eEnd == std::string::npos ? expected.size() : eEnd + 1;
  }
}

class SntFiles : public ::testing::Test {
 protected:
  FakeHome home_;
  TempDir dir_;
};

}  // namespace

TEST_F(SntFiles, WritesTheTwoPointZeroFormExactly) {
  ctonm2 engine;
  buildProject(engine);
  CSntMan manager(&engine, "/banks");
  manager.addHeader("TimeSignatures", "(3/4/0),");
  manager.addHeader("Empty", "");
  const std::string path = dir_.file("out.snt");
  ASSERT_EQ(manager.writeSnt2(path.c_str()), 1);
  expectSameLines(readFile(path), kForm20);
  EXPECT_EQ(manager.writeSnt2(dir_.file("no/such/dir.snt").c_str()), 0);
}

TEST_F(SntFiles, WritesTheOneTwoFormExactly) {
  ctonm2 engine;
  buildProject(engine);
  CSntMan manager(&engine, "/banks");
  const std::string path = dir_.file("out.snt");
  ASSERT_EQ(manager.writeSnt1(path.c_str()), 1);
  expectSameLines(readFile(path), kForm12);
}

TEST_F(SntFiles, OneTwoFormLeadsWithARestAndCutsOverlaps) {
  ctonm2 engine;
  NoteData first = makeNote("a", 60, 960, 600);
  NoteData second = makeNote("i", 60, 480, 480);
  engine.insert_note(0, &first);
  engine.insert_note(1, &second);
  CSntMan manager(&engine, nullptr);
  const std::string path = dir_.file("out.snt");
  ASSERT_EQ(manager.writeSnt1(path.c_str()), 1);
  const std::string text = readFile(path);
  EXPECT_NE(text.find("[#0000]\r\nLength=960\r\nLyric=R\r\nNoteNum=60\r\n[#0001]\r\nLength=480\r\nLyric=a\r\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("[#0002]\r\nLength=480\r\nLyric=i\r\n"), std::string::npos);
}

TEST_F(SntFiles, ShiftJisFileIsConvertedAndPlaceHoldersExpanded) {
  const std::string path = dir_.file("old.snt");
  writeFile(path, std::string("[#VERSION]\r\nSNT Version1.2\r\n[#SETTING]\r\nProjectName=") + kKaSjis +
                      "\r\nOutFile=${HOME}/" + kSaSjis + ".wav\r\nVoiceDir=${DEFAULT}/" + kKaSjis +
                      "\r\n[#0000]\r\nLength=480\r\nLyric=" + kKaSjis + "\r\nLabel=" + kSaSjis +
                      "\r\n[#0001]\r\nLength=480\r\nLyric=R\r\n[#TRACKEND]\r\n");
  ctonm2 engine;
  CSntMan manager(&engine, "/default");
  char ts[64];
  EXPECT_EQ(manager.readSnt2(path.c_str(), ts, sizeof ts), 2);
  EXPECT_STREQ(engine.projectName, kKaUtf8);
  EXPECT_EQ(std::string(engine.outfile), home_.path() + "/" + kSaUtf8 + ".wav");
  EXPECT_EQ(std::string(engine.voiceDir), std::string("/default/") + kKaUtf8 + "/");
  EXPECT_STREQ(engine.notes[0].Lyric, kKaUtf8);
  EXPECT_STREQ(engine.notes[0].Label, kSaUtf8);
}

TEST_F(SntFiles, Utf8FileKeepsItsOutputFileAsRead) {
  const std::string path = dir_.file("new.snt");
  writeFile(path, std::string("[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nOutFile=${HOME}/x.wav\n"
                              "VoiceDir=${DEFAULT}${HOME}/banks\nTimeSignatures=(3/4/0),\n"
                              "[#0000]\nLyric=") + kKaUtf8 + "\nDuration=480\n[#TRACKEND]\n");
  ctonm2 engine;
  CSntMan manager(&engine, nullptr);  // no default path: "${DEFAULT}" goes away
  char ts[64];
  EXPECT_EQ(manager.readSnt2(path.c_str(), ts, sizeof ts), 1);
  EXPECT_STREQ(engine.outfile, "${HOME}/x.wav");
  EXPECT_EQ(std::string(engine.voiceDir), home_.path() + "/banks/");
  EXPECT_STREQ(engine.notes[0].Lyric, kKaUtf8);
  EXPECT_STREQ(engine.charset, "utf-8");  // lower-cased
  EXPECT_STREQ(ts, "(3/4/0),");
  // Written again by the same manager, the signatures go with it.
  const std::string again = dir_.file("again.snt");
  ASSERT_EQ(manager.writeSnt2(again.c_str()), 1);
  EXPECT_NE(readFile(again).find("\nTimeSignatures=(3/4/0),\n"), std::string::npos) << readFile(again);
}

TEST_F(SntFiles, ShiftJisTextsKeepWhatConverts) {
  const std::string path = dir_.file("odd.snt");
  std::string sixteen;
  for (int i = 0; i < 16; ++i) sixteen += "\x82\xa0";  // 16 x あ: 32 bytes, cut to 31 by the reader
  writeFile(path, "[#VERSION]\nSNT Version2.0\nCharset=SJIS\n[#SETTING]\nVoiceDir=C:\\voice\\bank\n"
                  "OutFile=C:\\out\\song.wav\n"
                  "[#0000]\nLyric=\xff\xfe\n[#0001]\nLyric=\x82\xa0\xff\n[#0002]\nLyric=\xb1\xb2\xb3\n"
                  "[#0003]\nLyric=" + sixteen + "\n");
  ctonm2 engine;
  CSntMan manager(&engine, nullptr);
  EXPECT_EQ(manager.readSnt2(path.c_str(), nullptr, 0), 4);
  EXPECT_STREQ(engine.notes[0].Lyric, "");                 // nothing converts: no raw bytes
  EXPECT_STREQ(engine.notes[1].Lyric, "\xe3\x81\x82");    // あ, up to the bad byte
  EXPECT_STREQ(engine.notes[2].Lyric, "\xef\xbd\xb1\xef\xbd\xb2\xef\xbd\xb3");  // ｱｲｳ
  std::string ten;
  for (int i = 0; i < 10; ++i) ten += "\xe3\x81\x82";
  EXPECT_STREQ(engine.notes[3].Lyric, ten.c_str());  // cut on a character, within 31 bytes
  EXPECT_STREQ(engine.voiceDir, "C:/voice/bank/");   // "\\" separates folders
  EXPECT_STREQ(engine.outfile, "C:/out/song.wav");
}

TEST_F(SntFiles, ProjectsThatNameNoCharsetAreReadByTheirBytes) {
  const std::string utf8 = dir_.file("utf8.snt"), sjis = dir_.file("sjis.snt"), bom = dir_.file("bom.snt");
  writeFile(utf8, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=100\n[#0000]\nLyric=\xe3\x81\x8b\n");
  writeFile(sjis, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=100\n[#0000]\nLyric=\x82\xa9\n");
  writeFile(bom, "\xef\xbb\xbf[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=90\n"
                 "[#0000]\nLyric=\xe3\x81\x8b\n");
  for (const std::string& path : {utf8, sjis, bom}) {
    ctonm2 engine;
    CSntMan manager(&engine, nullptr);
    ASSERT_EQ(manager.readSnt2(path.c_str(), nullptr, 0), 1) << path;
    EXPECT_STREQ(engine.notes[0].Lyric, "\xe3\x81\x8b") << path;  // か each time
  }
  ctonm2 engine;
  CSntMan manager(&engine, nullptr);
  manager.readSnt2(bom.c_str(), nullptr, 0);
  EXPECT_EQ(engine.tempo, 90.0f);  // the settings after a byte-order mark are read
  // A forced charset wins over the bytes.
  CSntMan forced(&engine, nullptr);
  forced.setForcedCharset("shift_jis");
  engine.free_snt();
  forced.readSnt2(utf8.c_str(), nullptr, 0);
  EXPECT_STRNE(engine.notes[0].Lyric, "\xe3\x81\x8b");
}

TEST(ReplaceString, EveryOccurrenceFromTheLeft) {
  CReplaceString replace;
  EXPECT_STREQ(replace.replaceStr("aaa", "aa", "b"), "ba");
  EXPECT_STREQ(replace.replaceStr("x${H}y${H}", "${H}", nullptr), "xy");
  const char* text = "unchanged";
  EXPECT_EQ(replace.replaceStr(text, "", "z"), text);
  EXPECT_EQ(replace.replaceStr(nullptr, "a", "z"), nullptr);
  {
    ScopedEnv home("HOME", "/home/me");
    EXPECT_STREQ(replace.replaceHome("/home/me/banks"), "${HOME}/banks");
    EXPECT_STREQ(replace.restoreHome("${HOME}/banks"), "/home/me/banks");
  }
  ScopedEnv noHome("HOME", nullptr);
  EXPECT_EQ(replace.restoreHome(text), text);
}

TEST_F(SntFiles, TwoPointZeroRoundTripKeepsEveryField) {
  CScaleMan scale;
  CNoteMan original(&scale);
  buildProject(*original.engine());
  scale.unserializeText("(4/4/2),(3/4/0),");
  const std::string path = dir_.file("round.snt");
  ASSERT_EQ(original.writeSnt(path.c_str(), nullptr), 1);

  CScaleMan scaleBack;
  CNoteMan back(&scaleBack);
  ASSERT_EQ(back.openSnt(path.c_str(), nullptr), 2);
  char text[64];
  scaleBack.serialize2text(text, sizeof text);
  EXPECT_STREQ(text, "(4/4/2),(3/4/0),");
  ctonm2& a = *original.engine();
  ctonm2& b = *back.engine();
  EXPECT_STREQ(b.projectPath, path.c_str());
  ASSERT_EQ(b.noteCount, a.noteCount);
  for (int i = 0; i < a.noteCount; ++i) {
    const NoteData& x = a.notes[i];
    const NoteData& y = b.notes[i];
    EXPECT_EQ(y.Delta, x.Delta);
    EXPECT_EQ(y.Length, x.Length);
    EXPECT_STREQ(y.Lyric, x.Lyric);
    EXPECT_STREQ(y.Label, x.Label);
    EXPECT_EQ(y.NoteNum, x.NoteNum);
    EXPECT_EQ(std::isnan(y.PreUtterance), std::isnan(x.PreUtterance));
    if (!std::isnan(x.VoiceOverlap)) {
      EXPECT_EQ(y.VoiceOverlap, x.VoiceOverlap);
    }
    EXPECT_EQ(y.stptrim, x.stptrim);
    EXPECT_STREQ(y.Flags, x.Flags);
    EXPECT_EQ(0, memcmp(y.Envelope, x.Envelope, sizeof x.Envelope));
    EXPECT_EQ(0, memcmp(y.VBR, x.VBR, sizeof x.VBR));
    EXPECT_EQ(y.layer, x.layer);
    for (auto lists : {std::make_pair(x.PBS, y.PBS), std::make_pair(x.PBW, y.PBW), std::make_pair(x.PBY, y.PBY)}) {
      ASSERT_EQ(floatListCount(lists.second), floatListCount(lists.first));
      for (int k = 1; k <= floatListCount(lists.first); ++k) EXPECT_EQ(lists.second[k], lists.first[k]);
    }
    if (x.PBM != nullptr) {
      ASSERT_NE(y.PBM, nullptr);
      EXPECT_EQ(0, memcmp(y.PBM, x.PBM, static_cast<size_t>(x.PBM[0]) + 1));
    }
  }
}

TEST_F(SntFiles, OneTwoRoundTripKeepsWhatTheFormHolds) {
  CScaleMan scale;
  CNoteMan original(&scale);
  buildProject(*original.engine());
  original.engine()->sntVersion = 120;
  const std::string path = dir_.file("old.snt");
  ASSERT_EQ(original.writeSnt(path.c_str(), nullptr), 1);

  CNoteMan back(&scale);
  ASSERT_EQ(back.openSnt(path.c_str(), nullptr), 3);  // the gap became a rest
  const ctonm2& b = *back.engine();
  EXPECT_EQ(b.sntVersion, 120);
  ASSERT_EQ(b.noteCount, 3);
  EXPECT_STREQ(b.notes[0].Lyric, kKaUtf8);
  EXPECT_EQ(b.notes[0].Length, 240);
  EXPECT_TRUE(ctonm2::is_r(b.notes[1].Lyric));
  EXPECT_STREQ(b.notes[2].Lyric, kSaUtf8);
  EXPECT_EQ(b.notes[0].Delta + b.notes[1].Delta + b.notes[2].Delta, 480);  // same start
  EXPECT_EQ(b.notes[2].Length, 480);
  EXPECT_STREQ(b.notes[0].Label, "");  // lost in the 1.2 form
  EXPECT_EQ(b.notes[2].layer, 0);
  EXPECT_EQ(b.notes[2].stptrim, 0.0f);
  EXPECT_EQ(b.notes[2].Envelope[11], 1.0f);
  EXPECT_EQ(b.notes[2].Envelope[12], 0.0f);
  EXPECT_EQ(floatListCount(b.notes[0].PBS), 2);
  ASSERT_EQ(b.notes[2].PitchCount, 3);
  EXPECT_EQ(b.notes[2].Pitches[0], 7);
}

TEST(NoteManager, FreshEngineAndEmptyPath) {
  CScaleMan scale;
  CNoteMan manager(&scale);
  EXPECT_STREQ(manager.engine()->projectName, "(no title)");
  EXPECT_NE(manager.engine()->voiceset, nullptr);
  EXPECT_EQ(manager.openSnt("", nullptr), -1);
  EXPECT_EQ(manager.openSnt("/nonexistent/x.snt", nullptr), -1);
}

TEST_F(SntFiles, SavesKeepVelocityAndOlderVersionLinesReadAsTheOldForm) {
  const std::string path = dir_.file("velocity.snt");
  writeFile(path, "[#VERSION]\nXYZ Version1.2\n[#SETTING]\nTempo=120\n"
                  "[#0000]\nLength=480\nLyric=a\nNoteNum=60\nVelocity=81.28\n"
                  "[#0001]\nLength=480\nLyric=a\nNoteNum=60\n[#TRACKEND]\n");
  for (int form : {120, 200}) {
    ctonm2 engine;
    CSntMan reader(&engine, nullptr);
    ASSERT_EQ(reader.readSnt2(path.c_str(), nullptr, 0), 2);
    EXPECT_EQ(engine.sntVersion, 120);  // other letters before "Version1.2": the old form
    EXPECT_EQ(engine.notes[1].Delta, 480);  // lengths only, as that form has
    engine.sntVersion = form;
    const std::string saved = dir_.file("saved.snt");
    CSntMan writer(&engine, nullptr);
    ASSERT_EQ(form < 200 ? writer.writeSnt1(saved.c_str()) : writer.writeSnt2(saved.c_str()), 1);
    const std::string text = readFile(saved);
    const size_t at = text.find("Velocity=81.28");
    ASSERT_NE(at, std::string::npos) << form;
    const size_t previous = text.rfind("\n", at - 2);
    EXPECT_EQ(text.compare(previous + 1, 11, "Modulation="), 0) << form;  // just after Modulation
    EXPECT_EQ(text.find("Velocity=100"), std::string::npos) << form;  // only where it is not 100
    ctonm2 back;
    CSntMan again(&back, nullptr);
    again.readSnt2(saved.c_str(), nullptr, 0);
    EXPECT_FLOAT_EQ(back.notes[0].Velocity, 81.28f) << form;
  }
}

TEST(SntManager, ReadsNoVoiceSetWithoutOneToReadInto) {
  TestBank bank;
  bank.write("oto.ini", "a.wav=a,1,2,3,4,5\n");
  ctonm2 engine;
  CSntMan manager(&engine, nullptr);
  EXPECT_EQ(manager.readVoiceset(bank.path().c_str()), 0);
  cvoiceset voices;
  engine.voiceset = &voices;
  EXPECT_EQ(manager.readVoiceset(bank.path().c_str()), 1);
}
