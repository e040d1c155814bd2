#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midifile.h"
#include "midi/midiman.h"
#include "midi/vsqtable.h"
#include "tests/testutil.h"

namespace {

// Bytes of a MIDI file, built in the tests.
std::string be16(int v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }
std::string be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}
std::string header(int format, int tracks, int division) {
  return "MThd" + be32(6) + be16(format) + be16(tracks) + be16(division);
}
std::string chunk(const std::string& events) { return "MTrk" + be32(static_cast<uint32_t>(events.size())) + events; }
std::string meta(int type, const std::string& text) {
  return std::string("\xff") + static_cast<char>(type) + static_cast<char>(text.size()) + text;
}
std::string on(int channel, int key, int velocity) {
  return {static_cast<char>(0x90 | channel), static_cast<char>(key), static_cast<char>(velocity)};
}
std::string off(int channel, int key) { return {static_cast<char>(0x80 | channel), static_cast<char>(key), 0x40}; }
const std::string kEnd = std::string("\x00\xff\x2f\x00", 4);
std::string d(int delta) {  // a delta time (below 16384)
  return delta < 128 ? std::string(1, static_cast<char>(delta))
                     : std::string{static_cast<char>(0x80 | (delta >> 7)), static_cast<char>(delta & 0x7F)};
}

class Midi : public ::testing::Test {
 protected:
  std::string file(const std::string& bytes) {
    const std::string path = dir_.file("song" + std::to_string(++count_) + ".mid");
    writeFile(path, bytes);
    return path;
  }
  // Notes as "lyric@start:length/key i=intensity" of an imported file.
  std::string import(const std::string& path, int track, int channel = -1, std::string* signatures = nullptr) {
    CScaleMan scale;
    CNoteMan man(&scale);
    std::string text;
    const int32_t made = midi_.importMIDIFile(path.c_str(), track, channel, &man, signatures ? signatures : &text);
    if (made < 0) return "error: " + midi_.error();
    tempo_ = man.engine()->tempo;
    std::string out;
    for (int i = 0; i < man.noteCount(); ++i) {
      const NoteData& n = *man.getNote(i);
      if (n.Tempo > 0.0f && ctonm2::is_r(n.Lyric)) {
        out += "T" + std::to_string(static_cast<int>(n.Tempo)) + "@" + std::to_string(man.getPosition(i)) + " ";
        continue;
      }
      out += std::string(n.Lyric) + "@" + std::to_string(man.getPosition(i)) + ":" + std::to_string(n.Length) + "/" +
             std::to_string(n.NoteNum) + " ";
    }
    return out;
  }
  TempDir dir_;
  CMIDIMan midi_;
  int count_ = 0;
  float tempo_ = 0.0f;
};

}  // namespace

TEST(MidiFile, HeaderEventsAndVariableLengths) {
  TempDir dir;
  const std::string path = dir.file("t.mid");
  // Division 0xE728: -25 frames of 40 ticks: 500 per quarter at 120 BPM.
  writeFile(path, header(1, 1, 0xE728) + std::string("\x00\xff\x01\x00", 4) +  // a meta event of length 0
                      std::string("\x81\x00\x90\x3c\x64", 5) +                  // delta 128, note-on
                      std::string("\x00\x3e\x50", 3) +                           // running status
                      std::string("\x00\xff\x05\x02", 4) + "la" + std::string("\x00\x40", 2));  // data byte after a meta event
  CMIDIReader in(path.c_str());
  ASSERT_EQ(in.readHeader(), 1);
  EXPECT_EQ(in.division(), 500);
  EXPECT_TRUE(in.timeCode());
  MIDIMessage message;
  EXPECT_EQ(in.readMessage(&message), 0xFF);
  EXPECT_EQ(message.size, 0);
  EXPECT_EQ(in.readMessage(&message), 0x90);
  EXPECT_EQ(message.delta, 128);
  EXPECT_EQ(in.readMessage(&message), 0x90);  // running status
  EXPECT_EQ(message.data1, 0x3E);
  EXPECT_EQ(in.readMessage(&message), 0xFF);
  EXPECT_STREQ(reinterpret_cast<const char*>(message.data), "la");
  EXPECT_EQ(in.readMessage(&message), 0);  // no running status after a meta event
  EXPECT_EQ(in.readMessage(&message), 0);  // past the end: zeros
  EXPECT_EQ(message.delta, 0);

  CMIDIWriter out(dir.file("o.mid").c_str());
  for (int32_t value : {0x0FFFFFFF, 0, 128}) out.writeDeltaTime(value);
  out.write2ByteNumberR(-5);
  out.write2ByteNumberR(300);
  out.write3ByteNumber(500000);
  ASSERT_TRUE(out.close());
  EXPECT_EQ(readFile(dir.file("o.mid")), std::string("\xff\xff\xff\x7f\x00\x81\x00\x00\x00\x2c\x02\x07\xa1\x20", 14));
  EXPECT_EQ(CMIDIReader(dir.file("absent.mid").c_str()).readHeader(), 0);
  CMIDIWriter nowhere(dir.file("none/o.mid").c_str());  // writes into no file are dropped
  nowhere.writeBytes("MThd", 4);
  nowhere.writeLong(6);
  nowhere.close();
  EXPECT_FALSE(fileExists(dir.file("none/o.mid")));
  // A byte of 0x80 inside a delta carries on: 0x81 0x80 0x00 is 16384.
  writeFile(path, header(1, 1, 480) + std::string("\x81\x80\x00\x90\x3c\x64", 6));
  CMIDIReader again(path.c_str());
  ASSERT_EQ(again.readHeader(), 1);
  EXPECT_EQ(again.readMessage(&message), 0x90);
  EXPECT_EQ(message.delta, 16384);
}

TEST(MidiFile, EveryKindOfEventWrittenAndReadBack) {
  TempDir dir;
  const std::string path = dir.file("kinds.mid");
  struct Event {
    int status, data1, data2;
    const char* payload;
  };
  const Event events[] = {{0x92, 60, 100, ""}, {0xC3, 5, 0, ""},    {0xF0, 0, 0, "\x7e\x01"},
                          {0xF1, 1, 2, ""},    {0xF2, 3, 0, ""},    {0xF3, 4, 5, ""},
                          {0xF6, 0, 0, ""},    {0xFF, 3, 0, "ab"},  {0xD1, 7, 0, ""}};
  {
    CMIDIWriter out(path.c_str());
    for (const Event& event : events) {
      MIDIMessage message;
      message.status = static_cast<uint8_t>(event.status);
      message.data1 = static_cast<uint8_t>(event.data1);
      message.data2 = static_cast<uint8_t>(event.data2);
      message.setTextData(event.payload);
      message.size = static_cast<int32_t>(strlen(event.payload));
      out.writeMessage(&message);
    }
    ASSERT_TRUE(out.close());
  }
  EXPECT_EQ(readFile(path), std::string("\x00\x92\x3c\x64"
                                        "\x00\xc3\x05"
                                        "\x00\xf0\x02\x7e\x01"
                                        "\x00\xf1\x01\x02"
                                        "\x00\xf2\x03"
                                        "\x00\xf3\x04\x05"
                                        "\x00\xf6"
                                        "\x00\xff\x03\x02" "ab"
                                        "\x00\xd1\x07", 34));
  CMIDIReader in(path.c_str());
  for (const Event& event : events) {
    MIDIMessage message;
    ASSERT_EQ(in.readMessage(&message), event.status);
    EXPECT_EQ(message.data1, event.status == 0xF0 || event.status == 0xF6 ? 0 : event.data1) << event.status;
    EXPECT_EQ(message.data2, event.data2) << event.status;
    EXPECT_EQ(message.size, static_cast<int32_t>(strlen(event.payload))) << event.status;
  }
  EXPECT_EQ(in.remaining(), 0);
}

TEST_F(Midi, FormatZeroAndOneWithTemposSignaturesAndLyrics) {
  // Format 0: one track with everything, 240 ticks per quarter.
  const std::string zero = header(0, 1, 240) +
                           chunk(std::string("\x00", 1) + meta(0x51, be32(500000).substr(1)) + d(0) +
                                 meta(0x05, "\xe3\x81\x8b") + d(0) + on(0, 60, 100) + d(240) + off(0, 60) + d(0) +
                                 on(0, 62, 100) + d(120) + on(0, 62, 0) + d(0) + meta(0x51, be32(400000).substr(1)) +
                                 d(0) + meta(0x05, "\xe3\x81\x95") + d(0) + on(0, 64, 120) + d(480) + off(0, 64) + kEnd);
  EXPECT_EQ(import(file(zero), 5), "\xe3\x81\x8b@0:480/60 \xe3\x81\x82@480:240/62 T150@720 \xe3\x81\x95@720:960/64 ");
  EXPECT_EQ(tempo_, 120.0f);

  // Format 1: a conductor track with a name and time signatures (3/4
  // for two measures, then 4/4; one of 0 beats is no signature), notes on
  // two channels in track 1, Shift_JIS lyrics.
  const std::string one =
      header(1, 2, 480) +
      chunk(std::string("\x00", 1) + meta(0x03, "song") + d(0) + meta(0x58, std::string("\x03\x02\x18\x08", 4)) +
            d(2880) + meta(0x58, std::string("\x04\x02\x18\x08", 4)) + d(1920) +
            meta(0x58, std::string("\x00\x02\x18\x08", 4)) + kEnd) +
      chunk(std::string("\x00", 1) + meta(0x05, "\x82\xa9") + d(0) + on(0, 60, 100) + d(0) + on(1, 67, 100) + d(480) +
            off(0, 60) + d(0) + off(1, 67) + kEnd);
  std::string signatures;
  EXPECT_EQ(import(file(one), 1, -1, &signatures), "\xe3\x81\x8b@0:480/60 \xe3\x81\x82@0:480/67 ");
  // 2880 ticks at the measure length of 4 x 480 / 3 x 4 = 2560: one measure, as it has always been taken.
  EXPECT_EQ(signatures, "(3/4/1),(4/4/0),");
  EXPECT_EQ(import(file(one), 1, 1), "\xe3\x81\x8b@0:480/67 ");  // channel 1 only
}

TEST_F(Midi, WhatRealFilesDo) {
  // Text events as lyrics, a melisma mark, two lyrics on one tick, a
  // note-on that ends the same key's earlier note, an absurd tempo.
  const std::string path = file(
      header(1, 1, 480) +
      chunk(std::string("\x00", 1) + meta(0x51, std::string("\x00\x00\x10", 3)) + d(0) + meta(0x01, "x") + d(0) +
            meta(0x01, "\xe3\x81\x8b") + d(0) + on(0, 60, 100) + d(240) + meta(0x01, "-") + d(0) + on(0, 60, 100) +
            d(240) + off(0, 60) + kEnd));
  EXPECT_EQ(import(path, 0), "\xe3\x81\x8b@0:240/60 \xe3\x81\x82@240:240/60 ");
  EXPECT_EQ(tempo_, 1000.0f);  // 3,750,000 BPM clamped
  ASSERT_EQ(midi_.warnings().size(), 1u);
  EXPECT_NE(midi_.warnings()[0].find("outside 10..1000 BPM"), std::string::npos);
}

TEST_F(Midi, LyricsTextsAndLengthsAsRealFilesWriteThem) {
  const std::string na = "\xe3\x81\xaa", ni = "\xe3\x81\xab", a = "\xe3\x81\x82";
  struct Case {
    const char* what;
    std::string events;
    CMIDIMan::TextLyrics mode;
    std::string notes;
  };
  const Case cases[] = {
      {"a lyric just after its note-on, and one before the previous note's end at the next note's start",
       d(0) + on(0, 60, 100) + d(0) + meta(0x05, na) + d(480) + meta(0x05, ni) + d(0) + off(0, 60) + d(0) +
           on(0, 62, 100) + d(480) + off(0, 62) + d(0) + on(0, 64, 100) + d(480) + off(0, 64),
       CMIDIMan::TextLyrics::kAuto, na + "@0:480/60 " + ni + "@480:480/62 " + a + "@960:480/64 "},
      {"a lyric of two syllables in the middle of its note",
       d(0) + on(0, 60, 100) + d(240) + meta(0x05, na + ni) + d(240) + off(0, 60),
       CMIDIMan::TextLyrics::kAuto, na + ni + "@0:480/60 "},
      {"texts before the song are no lyrics",
       d(0) + meta(0x01, "Copyright 1999") + d(0) + meta(0x01, "verse") + d(480) + on(0, 60, 100) + d(480) +
           off(0, 60) + d(0) + on(0, 62, 100) + d(480) + off(0, 62),
       CMIDIMan::TextLyrics::kAuto, a + "@480:480/60 " + a + "@960:480/62 "},
      {"karaoke texts on the note starts are",
       d(0) + meta(0x01, "@Ttitle") + d(480) + meta(0x01, "/" + na) + d(0) + on(0, 60, 100) + d(480) + off(0, 60) +
           d(0) + meta(0x01, "\\" + ni) + d(0) + on(0, 62, 100) + d(480) + off(0, 62),
       CMIDIMan::TextLyrics::kAuto, na + "@480:480/60 " + ni + "@960:480/62 "},
      {"unless told no",
       d(480) + meta(0x01, na) + d(0) + on(0, 60, 100) + d(480) + off(0, 60),
       CMIDIMan::TextLyrics::kNo, a + "@480:480/60 "},
      {"or told yes, every text",
       d(0) + meta(0x01, "verse") + d(480) + on(0, 60, 100) + d(480) + off(0, 60),
       CMIDIMan::TextLyrics::kYes, "verse@480:480/60 "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    midi_.setTextLyrics(c.mode);
    EXPECT_EQ(import(file(header(0, 1, 480) + chunk(c.events + kEnd)), 0), c.notes);
  }
  midi_.setTextLyrics(CMIDIMan::TextLyrics::kAuto);

  // Lengths are (end - start) x 480 / division in one product: 333..1000
  // at 1000 per quarter is 320 long, not 480 - 159 = 321.
  EXPECT_EQ(import(file(header(0, 1, 1000) + chunk(d(333) + on(0, 60, 100) + d(667) + off(0, 60) + kEnd)), 0),
            a + "@159:320/60 ");

  // Each text in its own charset: a Shift_JIS track name over UTF-8 lyrics.
  const std::string mixed = file(header(0, 1, 480) + chunk(d(0) + meta(0x03, "\x82\xa9") + d(0) + meta(0x05, na) +
                                                            d(0) + on(0, 60, 100) + d(480) + off(0, 60) + kEnd));
  CScaleMan scale;
  CNoteMan man(&scale);
  std::string signatures;
  ASSERT_EQ(midi_.importMIDIFile(mixed.c_str(), 0, -1, &man, &signatures), 1);
  EXPECT_STREQ(man.engine()->projectName, "\xe3\x81\x8b");
  EXPECT_EQ(man.getNote(man.noteCount() - 1)->Lyric, na);
}

TEST_F(Midi, BadFilesEndTheImportWithAReason) {
  const std::string good = chunk(d(0) + on(0, 60, 100) + d(10) + off(0, 60) + kEnd);
  for (const auto& [bytes, reason] : std::vector<std::pair<std::string, std::string>>{
           {"RIFF" + std::string(20, '\0'), "no MThd"},
           {header(1, 1, 480) + "MTrk" + be32(1000) + d(0), "past the end of the file"},
           {header(1, 1, 480) + chunk(d(0) + std::string("\x90\x3c", 2)), "runs past the end of its track"},
           {header(2, 1, 480) + good, "format 2"},
           {header(1, 1, 0) + good, "division of 0"},
           {header(1, 0, 480), "no track"}}) {
    EXPECT_NE(import(file(bytes), 0).find(reason), std::string::npos) << reason << ": " << midi_.error();
  }
  // A file past what a song holds: refused with the bound.
  std::string many;
  for (int k = 0; k < 40; ++k) many += d(0) + on(0, 60, 100) + d(10) + off(0, 60);
  const std::string crowded = file(header(0, 1, 480) + chunk(many + kEnd));
  midi_.setLimits(19, CMIDIMan::kMaxEvents);
  EXPECT_NE(import(crowded, 0).find("more than 19 notes"), std::string::npos);
  midi_.setLimits(CMIDIMan::kMaxNotes, 50);
  EXPECT_NE(import(crowded, 0).find("more than 50 events"), std::string::npos);
  midi_.setLimits(40, 81);  // its 40 notes and 81 events, the end of the track included
  EXPECT_EQ(import(crowded, 0).rfind("error", 0), std::string::npos) << midi_.error();
  midi_.setLimits(CMIDIMan::kMaxNotes, CMIDIMan::kMaxEvents);
  // A huge meta length is cut to the file.
  const std::string huge = header(1, 1, 480) + chunk(d(0) + std::string("\xff\x05\x8f\xff\xff\x7f", 6) + "la");
  EXPECT_EQ(import(file(huge), 0).rfind("error", 0), 0u);
}

TEST_F(Midi, ExportedAndImportedAgain) {
  CScaleMan scale;
  CNoteMan man(&scale);
  man.engine()->tempo = 100.0f;
  man.insertNotePosition(0, 480, 60, "\xe3\x81\x8b");
  man.insertNotePosition(480, 240, 64, "\xe3\x81\x95");
  man.insertNotePosition(960, 960, 67, "\xe3\x82\x89");
  man.getNote(1)->Tempo = 150.0f;
  man.getNote(2)->Intensity = 50;
  const std::string path = dir_.file("out.mid");
  ASSERT_TRUE(midi_.writeSMFFile(path.c_str(), &man));
  EXPECT_EQ(import(path, 1), "\xe3\x81\x8b@0:480/60 T150@480 \xe3\x81\x95@480:240/64 \xe3\x82\x89@960:960/67 ");
  EXPECT_EQ(tempo_, 100.0f);
  // Each note ends with a note-off of the middle velocity.
  const std::string bytes = readFile(path);
  for (const char* off : {"\x80\x3c\x40", "\x80\x40\x40", "\x80\x43\x40"}) {
    EXPECT_NE(bytes.find(off), std::string::npos) << static_cast<int>(off[1]);
  }
  const std::vector<std::string> tracks = midi_.getTrackList(path.c_str());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[1], "Track01:  (3 notes, lyrics)");
  EXPECT_EQ(midi_.getChannelList(path.c_str(), 1), std::vector<std::string>{"ch00:(3 notes)"});
  // Intensity goes out as a velocity and comes back within the rounding.
  CScaleMan scale2;
  CNoteMan back(&scale2);
  std::string signatures;
  ASSERT_EQ(midi_.importMIDIFile(path.c_str(), 1, -1, &back, &signatures), 3);
  EXPECT_NEAR(back.getNote(back.noteCount() - 1)->Intensity, 50, 2);
  EXPECT_EQ(signatures, "(4/4/0),");

  // Time signatures go out at their measures (after the tempo, the same
  // tick as a tempo change) and come back.
  for (const char* text : {"(3/4/0),", "(2/2/3),(3/4/0),", "(1/4/0),"}) {
    scale.unserializeText(text);
    ASSERT_TRUE(midi_.writeSMFFile(path.c_str(), &man));
    ASSERT_EQ(midi_.importMIDIFile(path.c_str(), 1, -1, &back, &signatures), 3);
    EXPECT_EQ(signatures, text);
    EXPECT_EQ(import(path, 1), "\xe3\x81\x8b@0:480/60 T150@480 \xe3\x81\x95@480:240/64 \xe3\x82\x89@960:960/67 ");
  }
  // Beats a file cannot hold stay out of it.
  for (const char* text : {"(300/4/0),", "(-3/4/0),", "(3/-4/0),"}) {
    scale.unserializeText(text);
    ASSERT_TRUE(midi_.writeSMFFile(path.c_str(), &man));
    ASSERT_EQ(midi_.importMIDIFile(path.c_str(), 1, -1, &back, &signatures), 3);
    EXPECT_EQ(signatures, "(4/4/0),") << text;
  }
}

TEST(Vsq, KanaPhonemeTableAndLyricConversions) {
  int count = 0;
  const VsqSyllable* rows = vsqTable(&count);
  EXPECT_EQ(count, 147);
  EXPECT_STREQ(rows[1].phoneme, "h\\ a");
  EXPECT_EQ(lyricToPhon("\x82\xa9"), "k a");     // か in Shift_JIS
  EXPECT_EQ(lyricToPhon("\x82\xf1"), "N");       // ん: the first of four
  EXPECT_EQ(lyricToPhon("\x82\xe7"), "4 a");     // ら
  EXPECT_EQ(lyricToPhon("\x8a\xbf"), "a");       // 漢: not in the table
  char text[32] = "tS i";
  EXPECT_EQ(phonToLyric(text), 1);
  EXPECT_STREQ(text, "\xe3\x81\xa1");  // ち
  char unknown[32] = "zz";
  EXPECT_EQ(phonToLyric(unknown), 0);
  EXPECT_STREQ(unknown, "zz");
  // 119 bytes make one text event, 120 two.
  EXPECT_EQ(vsqTextEvents(std::string(119, 'x')), std::vector<std::string>{"DM:0000:" + std::string(119, 'x')});
  EXPECT_EQ(vsqTextEvents(std::string(120, 'x')),
            (std::vector<std::string>{"DM:0000:" + std::string(119, 'x'), "DM:0001:x"}));
  char vowel[32] = "o", other[32] = "ka";
  EXPECT_EQ(transformLyric(vowel), 1);
  EXPECT_STREQ(vowel, "\xe3\x81\x8a");
  EXPECT_EQ(transformLyric(other), 0);
}

TEST_F(Midi, VsqPreRollFollowsTheMasterTrackAndKeepsNotesInsideIt) {
  // A voice track's sequence: notes at the given ticks, one measure of pre-roll.
  auto voiceTrack = [](std::vector<int> ticks) {
    std::string list = "[EventList]\n0=ID#0000\n", ids, handles;
    for (size_t k = 0; k < ticks.size(); ++k) {
      char line[128];
      snprintf(line, sizeof line, "%d=ID#%04zu\n", ticks[k], k + 1);
      list += line;
      snprintf(line, sizeof line, "[ID#%04zu]\nType=Anote\nLength=240\nNote#=%zu\nLyricHandle=h#%04zu\n", k + 1,
               60 + k, k + 1);
      ids += line;
      snprintf(line, sizeof line, "[h#%04zu]\nL0=\"a\",\"a\",0.000000,64,0,0\n", k + 1);
      handles += line;
    }
    std::string events;
    for (const std::string& piece : vsqTextEvents("[Common]\nVersion=DSB301\n[Master]\nPreMeasure=1\n" + list +
                                                  "99999=EOS\n" + ids + handles)) {
      events += d(0) + meta(0x01, piece);
    }
    return chunk(events + kEnd);
  };
  auto importVsq = [&](const std::string& master, std::vector<int> ticks) {
    const std::string path = dir_.file("pre" + std::to_string(++count_) + ".vsq");
    writeFile(path, header(1, 2, 480) + chunk(master + kEnd) + voiceTrack(ticks));
    CScaleMan scale;
    CNoteMan man(&scale);
    EXPECT_GT(midi_.importVSQFile(path.c_str(), &man), 0) << midi_.error();
    std::string out;
    for (int i = 0; i < man.noteCount(); ++i) {
      out += std::to_string(man.getPosition(i)) + "/" + std::to_string(man.getNote(i)->NoteNum) + " ";
    }
    return out;
  };
  // A 3/4 master track: its pre-roll measure is 1440 long.
  const std::string threeFour = d(0) + meta(0x58, std::string("\x03\x02\x18\x08", 4));
  EXPECT_EQ(importVsq(threeFour, {1440, 1920}), "0/60 480/61 ");
  EXPECT_EQ(importVsq("", {1920, 2400}), "0/60 480/61 ");  // 4/4 when it says nothing
  // Beats and note value are all a signature needs.
  EXPECT_EQ(importVsq(d(0) + meta(0x58, std::string("\x03\x02", 2)), {1600, 2400}), "160/60 960/61 ");
  // Notes inside the pre-roll move back with the song, in order and apart.
  EXPECT_EQ(importVsq("", {960, 1440, 2400}), "0/60 480/61 1440/62 ");
}

TEST_F(Midi, VsqTracksAndTheirWayBack) {
  CScaleMan scale;
  CNoteMan man(&scale);
  man.insertNotePosition(0, 480, 60, "\xe3\x81\x8b");       // layer 0
  man.insertNotePosition(480, 480, 62, "R");
  man.insertNotePosition(960, 480, 64, "\xe3\x81\xa1");     // layer 1, below
  man.insertNotePosition(1440, 240, 65, "\xe6\xbc\xa2");    // 漢: phoneme a
  man.getNote(2)->layer = 1;
  man.getNote(0)->Intensity = 0;
  man.getNote(3)->Intensity = 200;
  const std::string path = dir_.file("out.vsq");
  EXPECT_FALSE(midi_.writeVSQFile(path.c_str(), nullptr));
  EXPECT_FALSE(midi_.writeVSQFile(nullptr, &man));
  ASSERT_TRUE(midi_.writeVSQFile(path.c_str(), &man));

  // The voice track of layer 0: its sequence text in events of at most
  // 127 bytes, numbered in order.
  CMIDIReader in(path.c_str());
  ASSERT_EQ(in.readHeader(), 1);
  EXPECT_EQ(in.tracks(), 3);
  in.moveTo(14);
  in.readInt2();
  const int32_t masterLength = in.readInt();
  in.moveTo(in.curPos() + masterLength);  // past the master track
  in.readInt2();
  const int32_t voiceLength = in.readInt();
  const long end = in.curPos() + voiceLength;
  std::string text;
  MIDIMessage message;
  int pieces = 0;
  while (in.curPos() < end && in.readMessage(&message) != 0) {
    if (message.status != 0xFF || message.data1 != 0x01) continue;
    const std::string piece(reinterpret_cast<const char*>(message.data), static_cast<size_t>(message.size));
    EXPECT_LE(piece.size(), 127u);
    char counter[16];
    snprintf(counter, sizeof counter, "DM:%04d:", pieces++);
    EXPECT_EQ(piece.substr(0, 8), counter);
    text += piece.substr(8);
  }
  EXPECT_GT(pieces, 1);
  EXPECT_EQ(text.rfind("[Common]\nVersion=DSB301\n", 0), 0u);
  // Rests and the other layer still move the position on: 1920 of pre-roll.
  EXPECT_NE(text.find("[EventList]\n0=ID#0000\n1920=ID#0001\n3360=ID#0002\n3600=EOS\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Length=480\nNote#=60\nDynamics=0\n"), std::string::npos);
  EXPECT_NE(text.find("Length=240\nNote#=65\nDynamics=127\n"), std::string::npos);  // 149 by the formula, kept to 0..127
  EXPECT_NE(text.find("[h#0001]\nL0=\"\x82\xa9\",\"k a\",0.000000,64,0,0\n"), std::string::npos);
  EXPECT_NE(text.find("L0=\"\x8a\xbf\",\"a\""), std::string::npos);

  // Back: every layer's notes where they were.
  EXPECT_EQ(import(path, 0), "");  // it is no plain MIDI note track
  CScaleMan scale2;
  CNoteMan back(&scale2);
  ASSERT_EQ(midi_.importVSQFile(path.c_str(), &back), 3);
  std::string notes;
  for (int i = 0; i < back.noteCount(); ++i) {
    const NoteData& n = *back.getNote(i);
    notes += std::string(n.Lyric) + "@" + std::to_string(back.getPosition(i)) + ":" + std::to_string(n.Length) + "/" +
             std::to_string(n.NoteNum) + "L" + std::to_string(n.layer) + " ";
  }
  EXPECT_EQ(notes, "\xe3\x81\x8b@0:480/60L0 \xe3\x81\xa1@960:480/64L1 \xe6\xbc\xa2@1440:240/65L0 ");
  EXPECT_NEAR(back.getNote(0)->Intensity, 0, 2);

  // Lyrics from phonemes when asked, or when the lyric text is empty.
  CScaleMan scale3;
  CNoteMan third(&scale3);
  midi_.setUsePhoneme(true);
  const char sequence[] =
      "[EventList]\n480=ID#0001\n960=ID#0002\n[ID#0001]\nLength=240\nNote#=61\nDynamics=64\nLyricHandle=h#0001\n"
      "[ID#0002]\nLength=240\nNote#=62\nLyricHandle=h#0002\n[h#0001]\nL0=\"x\",\"s a\",0.000000,64,0,0\n"
      "[h#0002]\nL0=\"u\",\"??\",0.000000,64,0,0\n";
  EXPECT_EQ(midi_.importVSQText(2, sequence, &third), 2);
  EXPECT_STREQ(third.getNote(0)->Lyric, "\xe3\x81\x95");  // さ from "s a"
  EXPECT_STREQ(third.getNote(1)->Lyric, "\xe3\x81\x86");  // う from "u": the phoneme is unknown
  EXPECT_EQ(third.getNote(0)->layer, 2);
  EXPECT_EQ(third.getNote(0)->Intensity, static_cast<int>(std::floor(84.0 * 84.0 / 140.0 - 2.0)));
}
