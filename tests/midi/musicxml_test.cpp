#include "midi/musicxml.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zip.h>

#include <string>
#include <vector>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "tests/testutil.h"

namespace {

// Scores are written here, as notation programs write them.
std::string partwise(const std::string& parts, const std::string& partList = "") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE score-partwise PUBLIC \"-//Recordare//DTD MusicXML 4.0 Partwise//EN\" "
         "\"http://www.musicxml.org/dtds/partwise.dtd\">\n"
         "<score-partwise version=\"4.0\"><work><work-title>Spring</work-title></work><part-list>" +
         (partList.empty() ? "<score-part id=\"P1\"><part-name>Soprano</part-name></score-part>" : partList) +
         "</part-list>" + parts + "</score-partwise>";
}
std::string part(const std::string& measures, const char* id = "P1") {
  return std::string("<part id=\"") + id + "\">" + measures + "</part>";
}
std::string measure(int number, const std::string& body) {
  return "<measure number=\"" + std::to_string(number) + "\">" + body + "</measure>";
}
std::string attributes(int divisions, int beats = 0, int type = 0) {
  std::string text = "<attributes>";
  if (divisions > 0) text += "<divisions>" + std::to_string(divisions) + "</divisions>";
  if (beats > 0) text += "<time><beats>" + std::to_string(beats) + "</beats><beat-type>" + std::to_string(type) + "</beat-type></time>";
  return text + "</attributes>";
}
// A pitched note: "C4", "F#5", "Bb3"; `more` goes inside it (lyrics, ties, voice, chord, grace).
std::string note(const std::string& name, int duration, const std::string& more = "") {
  std::string pitch = "<step>" + name.substr(0, 1) + "</step>";
  size_t at = 1;
  if (name[at] == '#' || name[at] == 'b') {
    pitch += std::string("<alter>") + (name[at] == '#' ? "1" : "-1") + "</alter>";
    ++at;
  }
  pitch += "<octave>" + name.substr(at) + "</octave>";
  const bool chord = more.find("<chord/>") != std::string::npos, grace = more.find("<grace/>") != std::string::npos;
  std::string inner = more;
  for (const char* mark : {"<chord/>", "<grace/>"}) {
    const size_t found = inner.find(mark);
    if (found != std::string::npos) inner.erase(found, strlen(mark));
  }
  return std::string("<note>") + (grace ? "<grace/>" : "") + (chord ? "<chord/>" : "") + "<pitch>" + pitch +
         "</pitch>" + (grace ? "" : "<duration>" + std::to_string(duration) + "</duration>") + inner + "</note>";
}
std::string rest(int duration) { return "<note><rest/><duration>" + std::to_string(duration) + "</duration></note>"; }
std::string lyric(const std::string& text, int number = 1, const std::string& more = "") {
  return "<lyric number=\"" + std::to_string(number) + "\"><syllabic>single</syllabic><text>" + text + "</text>" +
         more + "</lyric>";
}
std::string tempo(double bpm) {
  char text[64];
  snprintf(text, sizeof text, "<direction><sound tempo=\"%g\"/></direction>", bpm);
  return text;
}

class MusicXml : public ::testing::Test {
 protected:
  // The notes of part `part` as "lyric@start:length/key", tempo changes as "T<bpm>@tick".
  std::string import(const std::string& text, int part = -1, int voice = 0, int verse = 1) {
    CMusicXml score;
    if (!score.loadText(text.data(), text.size())) return "error: " + score.error();
    return read(score, part < 0 ? score.defaultPart() : part, voice, verse);
  }
  std::string read(CMusicXml& score, int part, int voice, int verse) {
    CScaleMan scale;
    CNoteMan man(&scale);
    signatures_.clear();
    if (score.importPart(part, voice, verse, &man, &signatures_) < 0) return "error: " + score.error();
    tempo_ = man.engine()->tempo;
    name_ = man.engine()->projectName;
    std::string out;
    for (int i = 0; i < man.noteCount(); ++i) {
      const NoteData& n = *man.getNote(i);
      if (n.Tempo > 0.0f && ctonm2::is_r(n.Lyric)) {
        out += "T" + std::to_string(static_cast<int>(n.Tempo)) + "@" + std::to_string(man.getPosition(i)) + " ";
      } else {
        out += std::string(n.Lyric) + "@" + std::to_string(man.getPosition(i)) + ":" + std::to_string(n.Length) +
               "/" + std::to_string(n.NoteNum) + " ";
      }
    }
    return out;
  }
  void twoVerses(const std::string& path);

  TempDir dir_;
  std::string signatures_, name_;
  float tempo_ = 0.0f;
};

}  // namespace

TEST_F(MusicXml, DivisionsTemposSignaturesRestsAndLyrics) {
  // Divisions 2 (an eighth is 1), 3/4 for two measures then 4/4, a tempo
  // of 90 from the start (a metronome mark of a dotted quarter at 60 later).
  const std::string metronome =
      "<direction><direction-type><metronome><beat-unit>quarter</beat-unit><beat-unit-dot/>"
      "<per-minute>60</per-minute></metronome></direction-type></direction>";
  const std::string text = partwise(part(
      measure(1, attributes(2, 3, 4) + tempo(90) + note("C4", 2, lyric("さ")) + rest(2) + note("D4", 2, lyric("く"))) +
      measure(2, note("E4", 1, lyric("ら")) + note("F#4", 1, lyric("さ")) + note("Bb4", 4, lyric("く"))) +
      measure(3, attributes(0, 4, 4) + metronome + note("C5", 8, lyric("ら")))));
  EXPECT_EQ(import(text), "さ@0:480/60 く@960:480/62 ら@1440:240/64 さ@1680:240/66 く@1920:960/70 T90@2880 "
                          "ら@2880:1920/72 ");
  EXPECT_EQ(tempo_, 90.0f);
  EXPECT_EQ(signatures_, "(3/4/2),(4/4/0),");
  EXPECT_EQ(name_, "Spring");
  // A tempo of 0, or of no finite number, is no tempo; the largest division counts.
  for (const std::string& none : {tempo(0), std::string("<sound tempo=\"inf\"/>")}) {
    EXPECT_EQ(import(partwise(part(measure(1, attributes(1 << 20) + none + note("C4", 1 << 20, lyric("a")))))),
              "a@0:480/60 ");
    EXPECT_EQ(tempo_, 120.0f);
  }
}

TEST_F(MusicXml, TiesGraceNotesChordsVoicesVersesAndMelismas) {
  const std::string melisma = lyric("あ", 1, "<extend/>");
  const std::string text = partwise(part(
      measure(1, attributes(1, 4, 4) +
                     note("C4", 2, "<voice>1</voice>" + lyric("か") + lyric("ka", 2)) +
                     note("G4", 2, "<chord/><voice>1</voice>") +  // a chord: its top note sings
                     note("D4", 1, "<grace/><voice>1</voice>" + lyric("x")) +
                     note("D4", 2, "<voice>1</voice><tie type=\"start\"/>" + lyric("ぜ") + lyric("ze", 2)) +
                     "<backup><duration>4</duration></backup>" + note("A2", 4, "<voice>2</voice>" + lyric("bass"))) +
      measure(2, note("D4", 1, "<voice>1</voice><tie type=\"stop\"/>") +  // tied over the bar line
                     note("E4", 1, "<voice>1</voice>" + melisma) + note("F4", 1, "<voice>1</voice>") +
                     note("G4", 1, "<voice>1</voice>" + lyric("", 1, "<extend type=\"stop\"/>")) +
                     "<forward><duration>0</duration></forward>")));
  EXPECT_EQ(import(text), "か@0:960/67 ぜ@960:1440/62 あ@2400:480/64 あ@2880:480/65 あ@3360:480/67 ");
  EXPECT_EQ(import(text, 0, 1, 2), "ka@0:960/67 ze@960:1440/62 あ@2400:480/64 あ@2880:480/65 あ@3360:480/67 ");
  EXPECT_EQ(import(text, 0, 2), "bass@0:1920/45 ");
  // A melisma over a syllable in any script keeps the mark.
  const std::string latin = partwise(part(measure(
      1, attributes(1) + note("C4", 1, lyric("Hel", 1, "<extend/>")) + note("D4", 1) + note("E4", 1, lyric("lo")))));
  EXPECT_EQ(import(latin), "Hel@0:480/60 -@480:480/62 lo@960:480/64 ");
  // The voice sung by default is the first to sing a pitched note: not a rest's, not a grace note's.
  const std::string late = partwise(part(measure(
      1, attributes(1) + "<note><rest/><duration>1</duration><voice>3</voice></note>" +
             note("C4", 1, "<grace/><voice>2</voice>") + note("E4", 1, "<voice>1</voice>" + lyric("い")) +
             "<backup><duration>2</duration></backup>" + note("G4", 1, "<voice>2</voice>" + lyric("x")))));
  EXPECT_EQ(import(late), "い@480:480/64 ");
}

TEST_F(MusicXml, ValuesOutOfRangeAreLeftOut) {
  // A metronome at 0 is none: the next one in the direction is taken.
  const std::string metronome = "<direction><direction-type><metronome><beat-unit>quarter</beat-unit>"
                                "<per-minute>0</per-minute></metronome></direction-type><direction-type><metronome>"
                                "<beat-unit>half</beat-unit><per-minute>45</per-minute></metronome></direction-type>"
                                "</direction>";
  const std::string text = partwise(part(
      measure(1, attributes(1, 0, 4) + metronome + note("C4", 1, lyric("<![CDATA[か]]>")) +
                     note("B10", 1, "<alter>4</alter>" + lyric("x")) + note("D4", 2, lyric("な"))) +
      measure(2, attributes(0, 3, 128) + note("E4", 4, lyric("<![CDATA[ら]]>")))));
  // Time signatures of 0 beats or of a 128th, a key past 127 left out; CDATA is text.
  EXPECT_EQ(import(text), "か@0:480/60 な@960:960/62 ら@1920:1920/64 ");
  EXPECT_EQ(signatures_, "(4/4/0),");
  EXPECT_EQ(tempo_, 90.0f);
}

TEST_F(MusicXml, TimewiseAndPartwiseScoresAgreeAndThePartWithLyricsIsTaken) {
  const std::string list =
      "<score-part id=\"P1\"><part-name>Piano</part-name></score-part>"
      "<score-part id=\"P2\"><part-name>Voice</part-name></score-part>";
  const std::string piano1 = attributes(1) + note("C3", 4), voice1 = attributes(1) + note("E4", 4, lyric("は"));
  const std::string piano2 = note("G3", 4), voice2 = note("D4", 2, lyric("る")) + rest(2);
  const std::string wise = partwise(part(measure(1, piano1) + measure(2, piano2), "P1") +
                                    part(measure(1, voice1) + measure(2, voice2), "P2"), list);
  const std::string timewise =
      "<?xml version=\"1.0\"?><score-timewise><part-list>" + list + "</part-list>" +
      "<measure number=\"1\"><part id=\"P1\">" + piano1 + "</part><part id=\"P2\">" + voice1 + "</part></measure>" +
      "<measure number=\"2\"><part id=\"P1\">" + piano2 + "</part><part id=\"P2\">" + voice2 + "</part></measure>" +
      "</score-timewise>";
  CMusicXml score;
  ASSERT_TRUE(score.loadText(wise.data(), wise.size()));
  ASSERT_EQ(score.parts().size(), 2u);
  EXPECT_EQ(score.parts()[0].name, "Piano");
  EXPECT_EQ(score.parts()[0].notes, 2);
  EXPECT_FALSE(score.parts()[0].lyrics);
  EXPECT_TRUE(score.parts()[1].lyrics);
  EXPECT_EQ(score.defaultPart(), 1);
  EXPECT_EQ(import(wise), "は@0:1920/64 る@1920:960/62 ");
  EXPECT_EQ(import(timewise), import(wise));
  EXPECT_EQ(import(wise, 0), "あ@0:1920/48 あ@1920:1920/55 ");
}

TEST_F(MusicXml, CompressedScoresAreReadFromTheirContainer) {
  const std::string text = partwise(part(measure(1, attributes(1) + note("A4", 4, lyric("ら")))));
  auto container = [&](const std::string& name, bool withManifest, bool locked = false) {
    const std::string path = dir_.file(name);
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    EXPECT_NE(archive, nullptr);
    const std::string manifest =
        "<?xml version=\"1.0\"?><container><rootfiles><rootfile full-path=\"scores/song.xml\"/></rootfiles></container>";
    std::vector<std::pair<std::string, const std::string*>> entries = {{"scores/song.xml", &text}};
    // Without the manifest the first .xml outside META-INF/ is the score.
    entries.insert(withManifest ? entries.end() : entries.begin(),
                   {withManifest ? "META-INF/container.xml" : "META-INF/signatures.xml", &manifest});
    for (const auto& [entry, bytes] : entries) {
      zip_source_t* source = zip_source_buffer(archive, bytes->data(), bytes->size(), 0);
      const zip_int64_t index = zip_file_add(archive, entry.c_str(), source, ZIP_FL_OVERWRITE);
      EXPECT_GE(index, 0);
      if (locked && bytes == &text) {
        EXPECT_EQ(zip_file_set_encryption(archive, static_cast<zip_uint64_t>(index), ZIP_EM_AES_256, "secret"), 0);
      }
    }
    EXPECT_EQ(zip_close(archive), 0);
    return path;
  };
  for (bool manifest : {true, false}) {
    CMusicXml score;
    ASSERT_TRUE(score.load(container(manifest ? "a.mxl" : "b.mxl", manifest).c_str())) << score.error();
    EXPECT_EQ(read(score, 0, 0, 1), "ら@0:1920/69 ");
  }
  // A score behind a password cannot be read.
  CMusicXml locked;
  EXPECT_FALSE(locked.load(container("c.mxl", true, true).c_str()));
  EXPECT_EQ(locked.error(), "the container holds no readable score (or one over 64 MB)");
}

// Nine entities each ten times the last: a billion bytes if expanded.
std::string billionLaughs() {
  std::string doctype = "<!DOCTYPE score-partwise [<!ENTITY e0 \"laugh\">";
  for (int k = 1; k <= 9; ++k) {
    doctype += "<!ENTITY e" + std::to_string(k) + " \"";
    for (int r = 0; r < 10; ++r) doctype += "&e" + std::to_string(k - 1) + ";";
    doctype += "\">";
  }
  return "<?xml version=\"1.0\"?>" + doctype + "]><score-partwise><part-list><score-part id=\"P1\"/></part-list>" +
         part(measure(1, attributes(1) + note("C4", 1, "<lyric><text>&e9;</text></lyric>"))) + "</score-partwise>";
}

TEST_F(MusicXml, AScoreAsNotationProgramsWriteThemSingsBothVerses) {
  // The hand-written score, and the same score as a notation program
  // wrote it again.
  for (const char* file : {"two_verses.musicxml", "two_verses_musescore.musicxml"}) {
    SCOPED_TRACE(file);
    twoVerses(std::string(TONA_TEST_DATA "/musicxml/") + file);
  }
}

void MusicXml::twoVerses(const std::string& path) {
  CMusicXml score;
  ASSERT_TRUE(score.load(path.c_str())) << score.error();
  ASSERT_EQ(score.defaultPart(), 0);
  // Verse 1: the melisma on り sings its vowel up to the extend's stop;
  // the tie across bars 2 and 3 is one note; the half note at 40 is a
  // tempo of 80 from bar 2. Verse 2 has no melisma: a note with no
  // syllable sings あ.
  EXPECT_EQ(read(score, 0, 0, 1), "さ@0:480/67 く@480:480/67 り@960:720/69 い@1680:240/67 T80@1920 い@1920:240/64 "
                                  "よ@2160:240/66 い@2400:1440/64 ");
  EXPECT_EQ(tempo_, 96.0f);
  EXPECT_EQ(signatures_, "(4/4/1),(3/4/0),");
  EXPECT_EQ(name_, "Two Verses");
  EXPECT_EQ(read(score, 0, 0, 2), "は@0:480/67 な@480:480/67 の@960:720/69 あ@1680:240/67 T80@1920 あ@1920:240/64 "
                                  "は@2160:240/66 る@2400:1440/64 ");
}

TEST_F(MusicXml, BadScoresAreRefusedWithAReason) {
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {"MThd this is no XML", "not XML"},
      {"<?xml version=\"1.0\"?><html/>", "not a MusicXML score"},
      {partwise(""), "no part"},
      {partwise(part(measure(1, attributes(1) + rest(4)))), "has no notes"},
      {partwise(part(measure(1, attributes(0) + "<attributes><divisions>-3</divisions></attributes>" + note("C4", 1)))),
       "absurd divisions (-3) in measure 1"},
      {partwise(part(measure(1, attributes(1) + note("C4", 1 << 30) + note("D4", 1 << 30)))), "2^30 ticks"},
      // An entity that would grow a billion times is never expanded.
      {billionLaughs(), ""},
  };
  for (const auto& c : cases) {
    const std::string got = import(c.text);
    if (c.reason[0] == '\0') {
      EXPECT_LT(got.size(), 200u) << got;  // read, the entity left alone
    } else {
      EXPECT_NE(got.find(c.reason), std::string::npos) << c.reason << ": " << got;
    }
  }
  // A file too big to be a score is refused before it is read.
  const std::string huge = dir_.file("huge.musicxml");
  ASSERT_TRUE(writeFile(huge, "<"));
  ASSERT_EQ(truncate(huge.c_str(), CMusicXml::kMaxScoreBytes + 1), 0);
  CMusicXml score;
  EXPECT_FALSE(score.load(huge.c_str()));
  EXPECT_NE(score.error().find("64 MB"), std::string::npos);
  EXPECT_FALSE(score.load(dir_.path().c_str()));  // a folder
  EXPECT_EQ(score.importPart(0, 0, 1, nullptr, nullptr), -1);
}

TEST_F(MusicXml, ExportedScoresReadBackToTheSameNotes) {
  // Lengths that cross bar lines and need several written values, a rest,
  // a tempo change, 3/4 then 4/4.
  CScaleMan scale;
  CNoteMan man(&scale);
  man.engine()->tempo = 100.0f;
  man.engine()->set_projectName("Round <trip> & back");
  scale.unserializeText("(3/4/2),(4/4/0),");
  const struct {
    int64_t start;
    int32_t length, key;
    const char* lyric;
  } notes[] = {{0, 480, 60, "さ"}, {480, 1200, 62, "く"}, {1920, 70, 64, "ら"}, {2400, 2000, 61, "a&b"}, {4800, 960, 72, "ん"}};
  for (const auto& n : notes) man.insertNotePosition(n.start, n.length, n.key, n.lyric);
  NoteData change;
  memset(&change, 0, sizeof change);
  change.Tempo = 140.0f;
  ctonm2::default_env(change.Envelope);
  man.insertNotePosition(2400, &change);
  const std::string path = dir_.file("out.musicxml");
  std::string error;
  ASSERT_TRUE(CMusicXml::write(path.c_str(), &man, &error)) << error;
  const std::string written = readFile(path);
  auto count = [&](const std::string& what) {
    size_t n = 0;
    for (size_t at = written.find(what); at != std::string::npos; at = written.find(what, at + 1)) ++n;
    return n;
  };
  // A tie starts on a note exactly when it stops on the next one.
  std::string starts = "-", stops;
  for (size_t at = written.find("<note>"); at != std::string::npos; at = written.find("<note>", at + 1)) {
    const std::string note = written.substr(at, written.find("</note>", at) - at);
    starts += note.find("<tie type=\"start\"/>") != std::string::npos ? 's' : '-';
    stops += note.find("<tie type=\"stop\"/>") != std::string::npos ? 's' : '-';
  }
  EXPECT_EQ(starts, stops + "-");
  EXPECT_GT(count("<tie type=\"start\"/>"), 0u);
  EXPECT_NE(written.find("<type>half</type>"), std::string::npos);
  // A time signature where it starts and where it changes, not again.
  EXPECT_EQ(count("<time>"), 2u);
  EXPECT_NE(written.find("Round &lt;trip&gt; &amp; back"), std::string::npos);
  CMusicXml score;
  ASSERT_TRUE(score.load(path.c_str())) << score.error();
  EXPECT_EQ(read(score, 0, 0, 1),
            "さ@0:480/60 く@480:1200/62 ら@1920:70/64 T140@2400 a&b@2400:2000/61 ん@4800:960/72 ");
  EXPECT_EQ(tempo_, 100.0f);
  EXPECT_EQ(signatures_, "(3/4/2),(4/4/0),");
}

// Written values: plain, dotted and double-dotted; a signature restated
// unchanged is one signature; an untitled project has no title.
TEST_F(MusicXml, DottedValuesRestatedSignaturesAndUntitledScores) {
  CScaleMan scale;
  CNoteMan man(&scale);
  man.engine()->set_projectName("(no title)");
  // A dotted quarter, a double-dotted quarter, a dotted eighth: one bar.
  man.insertNotePosition(0, 720, 60, "さ");
  man.insertNotePosition(720, 840, 62, "く");
  man.insertNotePosition(1560, 360, 64, "ら");
  const std::string path = dir_.file("dots.musicxml");
  std::string error;
  ASSERT_TRUE(CMusicXml::write(path.c_str(), &man, &error)) << error;
  const std::string written = readFile(path);
  std::vector<std::string> values;  // type and dots of each note
  for (size_t at = written.find("<note>"); at != std::string::npos; at = written.find("<note>", at + 1)) {
    const std::string one = written.substr(at, written.find("</note>", at) - at);
    const size_t type = one.find("<type>");
    std::string value = type == std::string::npos ? "?" : one.substr(type + 6, one.find("</type>") - type - 6);
    for (size_t dot = one.find("<dot/>"); dot != std::string::npos; dot = one.find("<dot/>", dot + 1)) value += ".";
    values.push_back(value);
  }
  EXPECT_EQ(values, (std::vector<std::string>{"quarter.", "quarter..", "eighth."}));
  EXPECT_EQ(written.find("<work>"), std::string::npos);

  const std::string restated = partwise(part(measure(1, attributes(1, 4, 4) + note("C4", 4, lyric("a"))) +
                                             measure(2, attributes(0, 4, 4) + note("D4", 4, lyric("b"))) +
                                             measure(3, attributes(0, 3, 4) + note("E4", 3, lyric("c")))));
  EXPECT_EQ(import(restated), "a@0:1920/60 b@1920:1920/62 c@3840:1440/64 ");
  EXPECT_EQ(signatures_, "(4/4/2),(3/4/0),");  // 4/4 for two measures, then 3/4
  // The lowest note there is, and a lyric with a comment inside it.
  const std::string low = partwise(part(measure(
      1, attributes(1, 4, 4) + note("C-1", 2, lyric("a")) +
             note("C4", 2, "<lyric number=\"1\"><text>k<!-- a note to the singer -->a</text></lyric>"))));
  EXPECT_EQ(import(low), "a@0:960/0 ka@960:960/60 ");
}
