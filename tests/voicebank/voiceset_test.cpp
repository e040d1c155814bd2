#include "voicebank/voiceset.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/textfile.h"
#include "tests/voicebank/bank.h"
#include "voicebank/connective.h"

namespace {

std::string filenames(cvoiceset& set) {
  std::string joined;
  for (int32_t i = 0; i < set.count(); ++i) joined += std::string(set.get_filename(i)) + ";";
  return joined;
}

std::multiset<std::string> filenameSet(cvoiceset& set) {
  std::multiset<std::string> names;
  for (int32_t i = 0; i < set.count(); ++i) names.insert(set.get_filename(i));
  return names;
}

const char* found(VoiceData* entry) { return entry != nullptr ? entry->filename : "(none)"; }

}  // namespace

TEST(VoiceSetReading, LinesChartsetsAndPartialEntries) {
  TestBank bank;
  bank.write("oto.ini",
             "#charset=SJIS\r\n"
             "\r\n"
             "ka.wav=,10\n"
             "ki.wav=ki\n"
             "ku.wav=ku,1,2\n"
             "a\\b\\c.wav=abc,1,2,-3,4,5\n"
             "# Charset:x=1\n"
             "# just a comment\n"
             "no equals sign\n"
             "ke.wav=ke,junk,7,,8,9 trailing\n");
  cvoiceset set;
  ASSERT_EQ(set.read_otoini((bank.folder() + "oto.ini").c_str(), ""), 6);
  EXPECT_STREQ(set.charset(), "SJIS");
  EXPECT_EQ(filenames(set), "ka.wav;ki.wav;ku.wav;a/b\\c.wav;# Charset:x;ke.wav;");
  const VoiceData* ka = set.getVoiceEntry(0);
  EXPECT_STREQ(ka->alias, "");
  EXPECT_EQ(ka->offset, 10.0f);
  EXPECT_STREQ(set.get_alias(1), "");  // no comma at all: no alias
  const VoiceData* ku = set.getVoiceEntry(2);
  EXPECT_STREQ(ku->alias, "ku");
  EXPECT_EQ(ku->offset, 1.0f);
  EXPECT_EQ(ku->fixed, 2.0f);
  EXPECT_EQ(ku->blank, 0.0f);
  const VoiceData* abc = set.getVoiceEntry(3);
  EXPECT_EQ(abc->blank, -3.0f);  // sign kept
  EXPECT_EQ(abc->overlap, 5.0f);
  const VoiceData* ke = set.getVoiceEntry(5);
  EXPECT_EQ(ke->offset, 0.0f);  // unreadable
  EXPECT_EQ(ke->fixed, 7.0f);
  EXPECT_EQ(ke->preuttr, 8.0f);
  EXPECT_EQ(ke->overlap, 9.0f);
  EXPECT_EQ(set.search_voicedata("ka"), ka);  // through the file-name rule

  // Appending a second table with a prefix keeps counting. Numbers that
  // are not finite are as unreadable as words.
  bank.write("more.ini", "ko.wav=ko,1,1,1,1,1\nko2.wav=ko2,nan,inf,-INF,1e39,7\n");
  EXPECT_EQ(set.read_otoini((bank.folder() + "more.ini").c_str(), "sub/"), 8);
  EXPECT_STREQ(set.get_filename(6), "sub/ko.wav");
  const VoiceData* ko2 = set.getVoiceEntry(7);
  EXPECT_EQ(ko2->offset, 0.0f);
  EXPECT_EQ(ko2->fixed, 0.0f);
  EXPECT_EQ(ko2->blank, 0.0f);
  EXPECT_EQ(ko2->overlap, 7.0f);
  EXPECT_STREQ(set.charset(), "");  // emptied on every read
  EXPECT_EQ(set.read_otoini((bank.folder() + "missing.ini").c_str(), ""), -1);
}

TEST(VoiceSetReading, OverlongTextsAreCut) {
  TestBank bank;
  const std::string longName(300, 'f');
  const std::string longAlias(100, 'a');
  bank.write("oto.ini", longName + ".wav=" + longAlias + ",1\n" + std::string(3000, 'x') + "=y,2\n");
  cvoiceset set;
  ASSERT_GE(set.read_otoini((bank.folder() + "oto.ini").c_str(), "prefix/"), 1);
  EXPECT_EQ(strlen(set.get_filename(0)), 255u);
  EXPECT_EQ(std::string(set.get_filename(0)).substr(0, 7), "prefix/");
  EXPECT_EQ(strlen(set.get_alias(0)), 63u);
}

TEST(VoiceSetReading, TopAndSubfolderTables) {
  TestBank bank;
  bank.write("oto.ini", "a.wav=a,1,2,3,4,5\n");
  bank.write("low/oto.ini", "ka.wav=ka,1,2,3,4,5\n");
  bank.write("\xe9\xab\x98/oto.ini", "ka.wav=ka_hi,1,2,3,4,5\n");  // 高, UTF-8 on disk
  bank.makeFolder("nothing");                                      // no oto.ini: adds -1
  bank.write(".hidden/oto.ini", "x.wav=x,1\n");
  bank.write("prefixmap", "C4\t\t_C4\n");
  bank.write("prefix.map", "C4\t\t_other\n");
  cvoiceset set;
  EXPECT_GT(set.read_voiceset(bank.path().c_str()), 0);
  ASSERT_EQ(set.count(), 3);
  // The subfolder name became Shift_JIS bytes in the file name.
  EXPECT_EQ(filenameSet(set), (std::multiset<std::string>{"a.wav", "low/ka.wav", "\x8d\x82/ka.wav"}));
  EXPECT_STREQ(set.get_filename(0), "a.wav");     // the top table comes first
  EXPECT_STREQ(set.prefixMap[60].suffix, "_C4");  // "prefixmap" before "prefix.map"

  convertVoicesetTexts(&set);  // the bank's charset is not UTF-8
  EXPECT_EQ(filenameSet(set), (std::multiset<std::string>{"a.wav", "low/ka.wav", "\xe9\xab\x98/ka.wav"}));
  EXPECT_STREQ(found(set.search_voicedata("ka_hi")), "\xe9\xab\x98/ka.wav");
  // The subfolders of a folder named with or without its closing "/".
  for (const std::string& folder : {bank.path(), bank.folder()}) {
    cvoiceset walked;
    copendir::read_folder_otoini(folder.c_str(), &walked, &cvoiceset::read_otoini);
    EXPECT_EQ(walked.count(), 2) << folder;
  }
}

TEST(VoiceSetReading, EditorsTableReplacesEveryOtoIni) {
  TestBank bank;
  bank.write("oto.ini", "a.wav=a,1\n");
  bank.write("low/oto.ini", "ka.wav=ka,1\n");
  bank.write("oto_ini.txt", "#Charset:UTF8\nmine.wav=mine,1,2,3,4,5\n");
  bank.write("prefix.map", "Charset:UTF-8\nD4\tp_\t\n");
  cvoiceset set;
  EXPECT_GT(set.read_voiceset(bank.folder().c_str()), 0);
  EXPECT_EQ(filenames(set), "mine.wav;");
  EXPECT_STREQ(set.charset(), "UTF8");
  EXPECT_STREQ(set.prefixMap[62].prefix, "p_");
  EXPECT_STREQ(set.prefixMap[0].name, "UTF-8");
}

TEST(VoiceSetReading, NothingToRead) {
  cvoiceset set;
  EXPECT_EQ(set.read_voiceset(nullptr), -1);
  EXPECT_EQ(set.read_voiceset(""), -1);
  TestBank empty;
  empty.write("prefix.map", "C4\tp\ts\n");
  EXPECT_LT(set.read_voiceset(empty.path().c_str()), 1);
  EXPECT_EQ(set.count(), 0);
  EXPECT_STREQ(set.prefixMap[60].prefix, "");  // no entries: no prefix map
  testing::internal::CaptureStderr();
  EXPECT_EQ(set.read_voiceset((empty.path() + "/absent").c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the log's, at level 2; commands say it their way
}

TEST(VoiceSetReading, TablesThatNameNoCharsetAreReadByTheirBytes) {
  // UTF-8 with a byte-order mark and no charset line, as editors on other
  // systems save it; a Shift_JIS subfolder table beside it.
  TestBank bank;
  bank.write("oto.ini", "\xef\xbb\xbf\xe3\x81\x82.wav=\xe3\x81\x82,1,2,3,4,5\n");
  bank.write("prefix.map",
             "\xef\xbb\xbf"
             "C4\t\xe5\xbc\xb1\t\n");
  cvoiceset set;
  ASSERT_GT(set.read_voiceset(bank.path().c_str()), 0);
  convertVoicesetTexts(&set);
  ASSERT_EQ(set.count(), 1);
  EXPECT_STREQ(set.getVoiceEntry(0)->filename, "\xe3\x81\x82.wav");  // the first entry, whole
  EXPECT_STREQ(set.getVoiceEntry(0)->alias, "\xe3\x81\x82");
  EXPECT_STREQ(set.prefixMap[60].prefix, "\xe5\xbc\xb1");
  TestBank sjis;
  sjis.write("oto.ini", "\x82\xa0.wav=\x82\xa0,1,2,3,4,5\n");
  cvoiceset other;
  ASSERT_GT(other.read_voiceset(sjis.path().c_str()), 0);
  convertVoicesetTexts(&other);
  EXPECT_STREQ(other.getVoiceEntry(0)->alias, "\xe3\x81\x82");
}

TEST(TextFiles, Utf8ByItsBytes) {
  EXPECT_TRUE(looksLikeUtf8("\xe3\x81\x82", 3));
  EXPECT_FALSE(looksLikeUtf8("plain", 5));             // ASCII alone decides nothing
  EXPECT_FALSE(looksLikeUtf8("\x82\xa0", 2));          // Shift_JIS
  EXPECT_TRUE(looksLikeUtf8("\xf4\x8f\xbf\xbf", 4));   // U+10FFFF, the last
  EXPECT_FALSE(looksLikeUtf8("\xf5\x80\x80\x80", 4));  // past it
  EXPECT_FALSE(looksLikeUtf8("\xf4\x90\x80\x80", 4));  // U+110000, past it too
  EXPECT_TRUE(looksLikeUtf8("\xdf\xbf", 2));              // U+07FF, the last of two bytes
  EXPECT_FALSE(looksLikeUtf8("\xe0\x80\x80", 3));        // a 0 written long
  EXPECT_FALSE(looksLikeUtf8("\xe3\x81", 2));          // cut short
  EXPECT_FALSE(looksLikeUtf8("\xc0\xaf", 2));          // overlong
  EXPECT_FALSE(looksLikeUtf8("\xed\xa0\x80", 3));      // a surrogate
  EXPECT_TRUE(looksLikeUtf8("a\xf0\x9f\x8e\xb5", 5));  // four bytes
}

TEST(PrefixMap, ReadSkipsBadRowsAndWriteReadsBack) {
  TestBank bank;
  bank.write("prefix.map",
             "Charset:a-very-long-charset\n"
             "C8\tp\ts\n"   // 108: out of the table
             "C-1\tp\ts\n"  // 0: ignored too
             "H4\tp\ts\n"   // not a note
             "A4\tonly one tab\n"
             "B7\ttop\t\n"
             "C#1\tlo\thi\n"
             "Bb2\t\t" +
                 std::string(40, 'x') + "\n");
  cvoiceset set;
  EXPECT_EQ(set.read_prefixmap((bank.folder() + "prefix.map").c_str()), 96);
  EXPECT_STREQ(set.prefixMap[0].name, "a-very-long");  // 11 bytes
  EXPECT_STREQ(set.prefixMap[69].prefix, "");
  EXPECT_STREQ(set.prefixMap[107].prefix, "top");
  EXPECT_STREQ(set.prefixMap[25].prefix, "lo");
  EXPECT_STREQ(set.prefixMap[25].suffix, "hi");
  EXPECT_EQ(strlen(set.prefixMap[46].suffix), 31u);

  set.prefixMap[12].prefix[0] = 'z';  // below C1: not written
  const std::string path = bank.folder() + "written.map";
  EXPECT_GT(set.write_prefixmap(path.c_str(), "UTF-8"), 0);
  const std::string text = readFile(path);
  EXPECT_EQ(text.rfind("Charset:UTF-8\nB7\ttop\t\nA#7\t\t\n", 0), 0u);
  EXPECT_NE(text.find("\nC#1\tlo\thi\nC1\t\t\n"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 6), "\nC1\t\t\n");  // C1 is the last row

  cvoiceset back;
  EXPECT_EQ(back.read_prefixmap(path.c_str()), 96);
  for (int note = 24; note < 108; ++note) {
    EXPECT_STREQ(back.prefixMap[note].prefix, set.prefixMap[note].prefix) << note;
    EXPECT_STREQ(back.prefixMap[note].suffix, set.prefixMap[note].suffix) << note;
  }
  EXPECT_STREQ(back.prefixMap[12].prefix, "");
  EXPECT_EQ(back.read_prefixmap((bank.folder() + "absent").c_str()), -1);
  EXPECT_STREQ(back.prefixMap[107].prefix, "top");  // a failed open keeps the table
  // A charset the map names is kept, whatever its bytes look like.
  bank.write("named.map", "Charset:cp932\nC4\t\xe3\x81\x82\t\n");
  EXPECT_EQ(back.read_prefixmap((bank.folder() + "named.map").c_str()), 96);
  EXPECT_STREQ(back.prefixMap[0].name, "cp932");
}

TEST(NoteNames, ToNumbers) {
  EXPECT_EQ(cvoiceset::name2num("C4"), 60);
  EXPECT_EQ(cvoiceset::name2num("A4"), 69);
  EXPECT_EQ(cvoiceset::name2num("C-1"), 0);
  EXPECT_EQ(cvoiceset::name2num("F#3"), 54);
  EXPECT_EQ(cvoiceset::name2num("Bb2"), 46);
  EXPECT_EQ(cvoiceset::name2num("B7"), 107);
  EXPECT_EQ(cvoiceset::name2num("H4"), 0);
  EXPECT_EQ(cvoiceset::name2num("C"), 0);
  EXPECT_EQ(cvoiceset::name2num("C#"), 0);
  EXPECT_EQ(cvoiceset::name2num("c4"), 0);
}

// A UTF-8 bank of kana entries for the lookup order.
class Lookup : public ::testing::Test {
 protected:
  void SetUp() override {
    bank_.write("oto.ini",
                "#Charset:UTF-8\n"
                "sa.wav=さ,1,1,1,1,1\n"
                "a_sa.wav=a さ,1,1,1,1,1\n"
                "star_sa.wav=* さ,1,1,1,1,1\n"
                "head_sa.wav=- さ,1,1,1,1,1\n"
                "n_sa.wav=n さ,1,1,1,1,1\n"
                "star_shi.wav=* し,1,1,1,1,1\n"
                "shi.wav=し,1,1,1,1,1\n"
                "su.wav=す,1,1,1,1,1\n"
                "sa_high.wav=さ_H,1,1,1,1,1\n"
                "a_sa_high.wav=a さ_H,1,1,1,1,1\n"
                "qsa.wav=?さ,1,1,1,1,1\n");
    bank_.write("prefix.map", "Charset:UTF-8\nC5\t\t_H\nE7\t\t_H\n");
    ASSERT_GT(set_.read_voiceset(bank_.path().c_str()), 0);
  }
  TestBank bank_;
  cvoiceset set_;
};

TEST_F(Lookup, WithoutRulesOnlyTheModifiedNameAndTheLyric) {
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "さ", 60)), "sa.wav");
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "さ", 72)), "sa_high.wav");  // C5 suffix
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "す", 72)), "su.wav");       // then the lyric
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "ぬ", 60)), "(none)");
}

TEST_F(Lookup, ConnectiveOrderAfterAPrecedingLyric) {
  installConnectiveRules(&set_);
  EXPECT_STREQ(found(set_.get_voicedata("か", "さ", 60)), "a_sa.wav");
  EXPECT_STREQ(found(set_.get_voicedata("か", "し", 60)), "star_shi.wav");  // fallback prefix
  EXPECT_STREQ(found(set_.get_voicedata("か", "す", 60)), "su.wav");        // the lyric alone
  EXPECT_STREQ(found(set_.get_voicedata("ほん", "さ", 60)), "n_sa.wav");    // ends in ん
  EXPECT_STREQ(found(set_.get_voicedata("ka", "さ", 60)), "sa.wav");        // no rule matches
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "さ", 60)), "head_sa.wav");
  EXPECT_STREQ(found(set_.get_voicedata("", "さ", 60)), "head_sa.wav");
  // With the note's suffix: prefixed modified name first, then prefixed lyric.
  EXPECT_STREQ(found(set_.get_voicedata("か", "さ", 72)), "a_sa_high.wav");
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "さ", 72)), "head_sa.wav");
  EXPECT_STREQ(set_.get_prefix("か"), "a ");
  EXPECT_STREQ(set_.get_prefix("っ"), "+ ");
  EXPECT_STREQ(set_.get_prefix("ka"), "");
}

TEST_F(Lookup, HighRowsNeverApplyAndQuestionMarkEscapes) {
  char name[64];
  EXPECT_STREQ(set_.getmodifyname("さ", 100, name, sizeof name), "さ");  // E7 is read, not applied
  EXPECT_STREQ(set_.prefixMap[100].suffix, "_H");
  EXPECT_STREQ(set_.getmodifyname("さ", 72, name, sizeof name), "さ_H");
  EXPECT_STREQ(set_.getmodifyname("?さ", 72, name, sizeof name), "さ");
  EXPECT_STREQ(found(set_.get_voicedata(nullptr, "?さ", 72)), "sa.wav");
}

TEST(VoiceSetSearch, IndexGivesTheScanAnswersThroughEdits) {
  cvoiceset set;
  VoiceData entry;
  auto add = [&](const char* filename, const char* alias) {
    memset(&entry, 0, sizeof entry);
    strcpy(entry.filename, filename);
    strcpy(entry.alias, alias);
    return set.add_item(&entry);
  };
  add("ka.wav", "");
  add("ka.wav.bak", "ka");
  add("sub/ki.wav", "ki");
  add("ki.wav", "ki");
  EXPECT_STREQ(found(set.search_voicedata("ka")), "ka.wav.bak");  // alias first
  EXPECT_STREQ(found(set.search_voicedata("ka.wav")), "ka.wav.bak");
  EXPECT_STREQ(found(set.search_voicedata("ki")), "sub/ki.wav");  // first hit in file order
  EXPECT_STREQ(found(set.search_voicedata("sub/ki")), "sub/ki.wav");
  EXPECT_STREQ(found(set.search_voicedata("")), "ka.wav");  // the empty alias

  set.set_alias(1, "other");
  EXPECT_STREQ(found(set.search_voicedata("ka")), "ka.wav");
  VoiceData removed;
  set.remove_item(0, &removed);
  EXPECT_STREQ(removed.filename, "ka.wav");
  EXPECT_STREQ(found(set.search_voicedata("ka")), "ka.wav.bak");
  set.set_filename(0, "ko.wav");
  EXPECT_STREQ(found(set.search_voicedata("ka")), "(none)");

  // A name whose length with the dot reaches 128 is compared whole.
  const std::string longName(127, 'n');
  add((longName + ".").c_str(), "");
  add((longName + ".wav").c_str(), "x");
  EXPECT_EQ(std::string(found(set.search_voicedata(longName.c_str()))), longName + ".");
}

TEST(VoiceSetEntries, InsertAppendsAndRemoveCopiesOut) {
  cvoiceset set;
  VoiceData entry;
  memset(&entry, 0, sizeof entry);
  strcpy(entry.filename, "a.wav");
  EXPECT_EQ(set.insert_item(0, &entry), 0);
  strcpy(entry.filename, "b.wav");
  EXPECT_EQ(set.insert_item(0, &entry), 1);  // always at the end
  EXPECT_EQ(set.insert_item(9, &entry), 2);
  EXPECT_EQ(filenames(set), "a.wav;b.wav;b.wav;");
  set.set_alias(0, std::string(50, 'q').c_str());
  EXPECT_EQ(strlen(set.get_alias(0)), 31u);
  set.set_filename(7, "ignored");
  EXPECT_EQ(set.get_filename(-1), nullptr);

  VoiceData out;
  memset(&out, 0xFF, sizeof out);
  set.remove_item(5, &out);
  EXPECT_STREQ(out.filename, "");
  EXPECT_EQ(out.offset, 0.0f);
  set.remove_item(set.getVoiceEntry(1), &out);
  EXPECT_STREQ(out.filename, "b.wav");
  EXPECT_EQ(set.count(), 2);
  set.free_otoini();
  EXPECT_EQ(set.count(), 0);
  EXPECT_EQ(set.write_otoini("/nonexistent/oto.ini"), 0);
}

TEST(VoiceSetEntries, SavedTableReadsBack) {
  TestBank bank;
  bank.write("oto.ini", "ka.wav=ka,10.25,20,-30,40,5\nki.wav=,1,2,3,4,5\n");
  cvoiceset set;
  set.read_voiceset(bank.path().c_str());
  const std::string saved = bank.folder() + "oto_ini.txt";
  EXPECT_EQ(set.wrtie_otoinitxt(saved.c_str()), 2);
  EXPECT_EQ(readFile(saved), "#Charset:UTF8\nka.wav=ka,10.2,20.0,-30.0,40.0,5.0\nki.wav=,1.0,2.0,3.0,4.0,5.0\n");
  cvoiceset back;
  EXPECT_GT(back.read_voiceset(bank.path().c_str()), 0);
  EXPECT_STREQ(back.charset(), "UTF8");
  EXPECT_EQ(back.getVoiceEntry(0)->blank, -30.0f);
  EXPECT_EQ(set.wrtie_otoinitxt("/nonexistent/dir/oto_ini.txt"), 0);
}

TEST(LookupOrder, FallbackWithTheSuffixComesBeforeThePrefixWithoutIt) {
  // After "か" at C5 (suffix "_H"): "a し_H" is missing; "* し_H" (the
  // fallback prefix with the suffix) is tried before "a し" (the prefix
  // without the suffix), and "a し" before the plain lyric.
  TestBank bank;
  bank.write("oto.ini",
             "#Charset:UTF-8\nfall_high.wav=* し_H,1,1,1,1,1\na_shi.wav=a し,1,1,1,1,1\nshi.wav=し,1,1,1,1,1\n");
  bank.write("prefix.map", "Charset:UTF-8\nC5\t\t_H\n");
  cvoiceset set;
  ASSERT_GT(set.read_voiceset(bank.path().c_str()), 0);
  installConnectiveRules(&set);
  EXPECT_STREQ(set.get_voicedata("か", "し", 72)->filename, "fall_high.wav");
  EXPECT_STREQ(set.get_voicedata("か", "し", 60)->filename, "a_shi.wav");
  // Lyrics that carry their connective prefix or their note suffix
  // already are found as they are.
  EXPECT_STREQ(set.get_voicedata(nullptr, "a し", 60)->filename, "a_shi.wav");
  EXPECT_STREQ(set.get_voicedata(nullptr, "* し_H", 60)->filename, "fall_high.wav");
}

TEST(LookupOrder, ConnectiveVowelsAndPitchSuffixesAsBanksNameThem) {
  // Aliases such as "o じF4": the previous vowel, the lyric and the
  // suffix the prefix map gives the note.
  TestBank bank;
  bank.write("oto.ini", "#Charset:UTF-8\noji.wav=o じF4,1,1,1,1,1\nan.wav=a んA3,1,1,1,1,1\nji.wav=じ,1,1,1,1,1\n");
  bank.write("prefix.map", "Charset:UTF-8\nF4\t\tF4\nA3\t\tA3\n");
  cvoiceset set;
  ASSERT_GT(set.read_voiceset(bank.path().c_str()), 0);
  installConnectiveRules(&set);
  EXPECT_STREQ(set.get_voicedata("こ", "じ", 65)->filename, "oji.wav");  // F4
  EXPECT_STREQ(set.get_voicedata("か", "ん", 57)->filename, "an.wav");   // A3
  EXPECT_STREQ(set.get_voicedata("か", "じ", 60)->filename, "ji.wav");   // no suffix at C4: the lyric
}
