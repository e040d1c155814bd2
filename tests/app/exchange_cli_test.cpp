#include <gtest/gtest.h>

#include <string>

#include "tests/testutil.h"

TEST(ExchangeCommands, ExportThenImportKeepsTheSong) {
  FakeHome home;
  TempDir dir;
  const std::string demo = TONA_SOURCE_DIR "/demo/song.snt";
  const std::string mid = dir.file("song.mid"), back = dir.file("back.snt");
  ASSERT_EQ(runTona({"export", demo, "-o", mid}).status, 0);
  RunResult list = runTona({"import", mid, "--list"});
  ASSERT_EQ(list.status, 0) << list.err;
  EXPECT_NE(list.out.find("Track01:  (50 notes, lyrics)\n    ch00:(50 notes)\n"), std::string::npos) << list.out;
  RunResult imported = runTona({"import", mid, "-o", back, "--voice-dir", "voicebank"});
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_NE(imported.err.find("imported 50 notes from track 1"), std::string::npos) << imported.err;
  // The same notes and song length as the project exported.
  const RunResult before = runTona({"info", demo}), after = runTona({"info", back});
  EXPECT_NE(after.out.find("notes:           50\n"), std::string::npos) << after.out;
  const auto lengthLine = [](const std::string& out) { return out.substr(out.rfind("length:")); };
  EXPECT_EQ(lengthLine(after.out), lengthLine(before.out));
  // The same through a VSQ sequence.
  const std::string vsq = dir.file("song.vsq"), fromVsq = dir.file("vsq.snt");
  ASSERT_EQ(runTona({"export", demo, "-o", vsq}).status, 0);
  ASSERT_EQ(runTona({"import", vsq, "-o", fromVsq}).status, 0);
  const RunResult third = runTona({"info", fromVsq});
  EXPECT_NE(third.out.find("notes:           50\n"), std::string::npos) << third.out;
  EXPECT_EQ(lengthLine(third.out), lengthLine(before.out));
  // And through a MusicXML score.
  const std::string xml = dir.file("song.musicxml"), fromXml = dir.file("xml.snt");
  ASSERT_EQ(runTona({"export", demo, "-o", xml}).status, 0);
  list = runTona({"import", xml, "--list"});
  EXPECT_EQ(list.out, "Part 1: Voice (57 notes, lyrics)\n");  // seven notes tied over bar lines
  imported = runTona({"import", xml, "-o", fromXml, "--verse", "1"});
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_NE(imported.err.find("imported 50 notes from part 1"), std::string::npos) << imported.err;
  const RunResult fourth = runTona({"info", fromXml});
  EXPECT_EQ(lengthLine(fourth.out), lengthLine(before.out));
  RunResult bad = runTona({"import", xml, "-o", dir.file("x.snt"), "--part", "2"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "tona import: '" + xml + "': no part 2 (the score has 1); nothing written\n");
  EXPECT_FALSE(fileExists(dir.file("x.snt")));
}

TEST(ExchangeCommands, BadInputsSayWhy) {
  FakeHome home;
  TempDir dir;
  writeFile(dir.file("not.mid"), "RIFF....WAVEfmt ");
  RunResult bad = runTona({"import", dir.file("not.mid"), "-o", dir.file("o.snt")});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "tona import: '" + dir.file("not.mid") + "': not a MIDI file (no MThd header); nothing written\n");
  EXPECT_FALSE(fileExists(dir.file("o.snt")));
  writeFile(dir.file("s.vsq"), "MThd");
  RunResult cut = runTona({"import", dir.file("s.vsq"), "-o", dir.file("o.snt")});
  EXPECT_EQ(cut.status, 1);
  EXPECT_EQ(cut.err.rfind("tona import: ", 0), 0u) << cut.err;
  EXPECT_EQ(runTona({"import", dir.file("not.mid"), "-o", dir.file("o.snt"), "--channel", "16"}).status, 2);
  EXPECT_EQ(runTona({"import", dir.file("not.mid"), "-o", dir.file("o.snt"), "--charset", "latin1"}).status, 2);
  EXPECT_EQ(runTona({"import", dir.file("not.mid"), "-o", dir.file("o.snt"), "--text-lyrics", "maybe"}).status, 2);
  EXPECT_EQ(runTona({"export", TONA_SOURCE_DIR "/demo/song.snt", "-o", dir.file("o.wav")}).status, 2);
}
