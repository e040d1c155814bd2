#include "midi/musicxml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlwriter.h>
#include <sys/stat.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midiman.h"
#include "midi/note_appender.h"
#include "support/regular_file.h"
#include "support/safe_output.h"
#include "support/textcopy.h"

namespace {

constexpr int64_t kTicksPerQuarter = 480;
constexpr int64_t kMaxTick = int64_t(1) << 30;
constexpr int64_t kMaxDivisions = 1 << 20;

bool named(const xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST name) == 0;
}

const xmlNode* child(const xmlNode* node, const char* name) {
  for (const xmlNode* c = node != nullptr ? node->children : nullptr; c != nullptr; c = c->next) {
    if (named(c, name)) return c;
  }
  return nullptr;
}

// The text inside an element: its text and CDATA, never what an entity
// reference would expand to (a score has no use for entities, and a
// hostile one could grow a byte into gigabytes).
void appendText(const xmlNode* node, std::string* text) {
  for (const xmlNode* c = node->children; c != nullptr && text->size() < 65536; c = c->next) {
    if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && c->content != nullptr) {
      text->append(reinterpret_cast<const char*>(c->content));
    } else if (c->type == XML_ELEMENT_NODE) {
      appendText(c, text);
    }
  }
}

std::string textOf(const xmlNode* node) {
  std::string text;
  if (node != nullptr) appendText(node, &text);
  return text;
}

std::string attribute(const xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, BAD_CAST name);
  std::string text = value != nullptr ? reinterpret_cast<const char*>(value) : "";
  xmlFree(value);
  return text;
}

// A whole number of the score, or `fallback` when the text is none.
long long number(const std::string& text, long long fallback) {
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(text.c_str(), &end, 10);
  if (end == text.c_str() || errno != 0) return fallback;
  return value;
}

double decimal(const std::string& text, double fallback) {
  char* end = nullptr;
  const double value = strtod(text.c_str(), &end);
  return end == text.c_str() || !std::isfinite(value) ? fallback : value;
}

// Every part of a score as its measures' content elements (the <measure>
// of a partwise score, the <part> inside each <measure> of a timewise one),
// in the order of the part list.
struct ScoreParts {
  std::vector<std::string> ids;
  std::vector<std::string> names;
  std::vector<std::vector<const xmlNode*>> measures;
};

ScoreParts scoreParts(const xmlNode* root) {
  ScoreParts parts;
  std::map<std::string, size_t> index;
  auto indexOf = [&](const std::string& id) {
    const auto found = index.find(id);
    if (found != index.end()) return found->second;
    index[id] = parts.ids.size();
    parts.ids.push_back(id);
    parts.names.push_back(std::string());
    parts.measures.emplace_back();
    return parts.ids.size() - 1;
  };
  if (const xmlNode* list = child(root, "part-list")) {
    for (const xmlNode* c = list->children; c != nullptr; c = c->next) {
      if (named(c, "score-part")) parts.names[indexOf(attribute(c, "id"))] = textOf(child(c, "part-name"));
    }
  }
  const bool timewise = named(root, "score-timewise");
  for (const xmlNode* c = root->children; c != nullptr; c = c->next) {
    if (!timewise && named(c, "part")) {
      std::vector<const xmlNode*>& measures = parts.measures[indexOf(attribute(c, "id"))];
      for (const xmlNode* m = c->children; m != nullptr; m = m->next) {
        if (named(m, "measure")) measures.push_back(m);
      }
    } else if (timewise && named(c, "measure")) {
      for (const xmlNode* p = c->children; p != nullptr; p = p->next) {
        if (named(p, "part")) parts.measures[indexOf(attribute(p, "id"))].push_back(p);
      }
    }
  }
  return parts;
}

// The chosen verse's lyric of a note: its text ("" when it has none) and
// its extend line: 1 starts or continues a melisma, -1 ends it, 0 none.
struct Lyric {
  bool present = false;
  std::string text;
  int extend = 0;
};

Lyric lyricOf(const xmlNode* note, int32_t verse) {
  Lyric lyric;
  int ordinal = 0;
  for (const xmlNode* c = note->children; c != nullptr; c = c->next) {
    if (!named(c, "lyric")) continue;
    ++ordinal;
    const std::string number = attribute(c, "number");
    if (number.empty() ? ordinal != verse : number != std::to_string(verse)) continue;
    for (const xmlNode* part = c->children; part != nullptr; part = part->next) {
      if (named(part, "text")) {
        lyric.text += textOf(part);
        lyric.present = true;
      } else if (named(part, "elision")) {
        lyric.text += textOf(part).empty() ? " " : textOf(part);
      } else if (named(part, "extend")) {
        lyric.extend = attribute(part, "type") == "stop" ? -1 : 1;
      }
    }
    break;
  }
  return lyric;
}

bool hasTie(const xmlNode* note, const char* type) {
  for (const xmlNode* c = note->children; c != nullptr; c = c->next) {
    if (named(c, "tie") && attribute(c, "type") == type) return true;
    if (named(c, "notations")) {
      for (const xmlNode* n = c->children; n != nullptr; n = n->next) {
        if (named(n, "tied") && attribute(n, "type") == type) return true;
      }
    }
  }
  return false;
}

// The MIDI key of a <pitch>, or -1.
int keyOf(const xmlNode* pitch) {
  static const int kSteps[7] = {9, 11, 0, 2, 4, 5, 7};  // A B C D E F G
  const std::string step = textOf(child(pitch, "step"));
  if (step.size() != 1 || step[0] < 'A' || step[0] > 'G') return -1;
  const long long octave = number(textOf(child(pitch, "octave")), 4);
  const double alter = decimal(textOf(child(pitch, "alter")), 0.0);
  const long long key = (std::clamp(octave, -2LL, 10LL) + 1) * 12 + kSteps[step[0] - 'A'] + std::lround(std::clamp(alter, -4.0, 4.0));
  return key >= 0 && key <= 127 ? static_cast<int>(key) : -1;
}

// Quarter notes in a metronome's beat unit.
double quartersOf(const std::string& unit) {
  static const std::pair<const char*, double> kUnits[] = {{"breve", 8.0}, {"whole", 4.0},   {"half", 2.0},
                                                          {"quarter", 1.0}, {"eighth", 0.5}, {"16th", 0.25},
                                                          {"32nd", 0.125}};
  for (const auto& [name, quarters] : kUnits) {
    if (unit == name) return quarters;
  }
  return 0.0;
}

// The tempo a <direction> (or a bare <sound>) sets, 0 for none: its
// sound's tempo, else its metronome mark's.
double tempoOf(const xmlNode* node) {
  if (named(node, "sound")) return decimal(attribute(node, "tempo"), 0.0);
  if (const xmlNode* sound = child(node, "sound")) {
    const double tempo = decimal(attribute(sound, "tempo"), 0.0);
    if (tempo > 0.0) return tempo;
  }
  for (const xmlNode* type = node->children; type != nullptr; type = type->next) {
    const xmlNode* metronome = named(type, "direction-type") ? child(type, "metronome") : nullptr;
    if (metronome == nullptr) continue;
    double quarters = 0.0;
    for (const xmlNode* c = metronome->children; c != nullptr; c = c->next) {
      if (named(c, "beat-unit") && quarters == 0.0) quarters = quartersOf(textOf(c));
      if (named(c, "beat-unit-dot") && quarters > 0.0) quarters *= 1.5;
    }
    const double perMinute = decimal(textOf(child(metronome, "per-minute")), 0.0);
    if (quarters > 0.0 && perMinute > 0.0) return perMinute * quarters;
  }
  return 0.0;
}

// A zip container's score: the file its META-INF/container.xml names, else
// its first .xml or .musicxml file outside META-INF.
bool readContainer(const char* path, std::string* score, std::string* error) {
  int code = 0;
  zip_t* archive = zip_open(path, ZIP_RDONLY, &code);
  if (archive == nullptr) return *error = "not a MusicXML file (neither XML nor a zip container)", false;
  auto readEntry = [&](zip_int64_t index, std::string* out) {
    zip_stat_t info;
    if (zip_stat_index(archive, static_cast<zip_uint64_t>(index), 0, &info) != 0 || (info.valid & ZIP_STAT_SIZE) == 0 ||
        info.size > static_cast<zip_uint64_t>(CMusicXml::kMaxScoreBytes)) {
      return false;
    }
    zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(index), 0);
    if (file == nullptr) return false;
    out->assign(static_cast<size_t>(info.size), '\0');
    const zip_int64_t got = info.size > 0 ? zip_fread(file, &(*out)[0], info.size) : 0;
    zip_fclose(file);
    return got == static_cast<zip_int64_t>(info.size);
  };
  std::string rootPath;
  std::string container;
  const zip_int64_t containerIndex = zip_name_locate(archive, "META-INF/container.xml", 0);
  if (containerIndex >= 0 && readEntry(containerIndex, &container)) {
    xmlDoc* doc = xmlReadMemory(container.data(), static_cast<int>(container.size()), "container.xml", nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    const xmlNode* root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    const xmlNode* rootfiles = child(root, "rootfiles");
    for (const xmlNode* c = rootfiles != nullptr ? rootfiles->children : nullptr; c != nullptr && rootPath.empty();
         c = c->next) {
      if (named(c, "rootfile")) rootPath = attribute(c, "full-path");
    }
    xmlFreeDoc(doc);
  }
  zip_int64_t scoreIndex = rootPath.empty() ? -1 : zip_name_locate(archive, rootPath.c_str(), 0);
  for (zip_int64_t k = 0, n = zip_get_num_entries(archive, 0); scoreIndex < 0 && k < n; ++k) {
    const char* name = zip_get_name(archive, static_cast<zip_uint64_t>(k), 0);
    if (name == nullptr || strncmp(name, "META-INF/", 9) == 0) continue;
    const size_t length = strlen(name);
    if ((length > 4 && strcmp(name + length - 4, ".xml") == 0) ||
        (length > 9 && strcmp(name + length - 9, ".musicxml") == 0)) {
      scoreIndex = k;
    }
  }
  const bool read = scoreIndex >= 0 && readEntry(scoreIndex, score);
  zip_close(archive);
  if (!read) *error = "the container holds no readable score (or one over 64 MB)";
  return read;
}

}  // namespace

CMusicXml::CMusicXml() = default;

CMusicXml::~CMusicXml() { xmlFreeDoc(static_cast<xmlDoc*>(doc_)); }

bool CMusicXml::load(const char* path) {
  error_.clear();
  struct stat info;
  if (path == nullptr || stat(path, &info) != 0) return error_ = strerror(errno != 0 ? errno : ENOENT), false;
  if (!S_ISREG(info.st_mode)) return error_ = "not a regular file", false;
  if (info.st_size > kMaxScoreBytes) return error_ = "over 64 MB: no score is that big", false;
  FILE* in = openRegularFile(path, "rb");
  if (in == nullptr) return error_ = strerror(errno), false;
  std::string bytes(static_cast<size_t>(info.st_size), '\0');
  const size_t got = bytes.empty() ? 0 : fread(&bytes[0], 1, bytes.size(), in);
  fclose(in);
  if (got != bytes.size()) return error_ = "cannot read it whole", false;
  if (bytes.compare(0, 4, "PK\x03\x04") == 0) {
    std::string score;
    if (!readContainer(path, &score, &error_)) return false;
    return parse(score);
  }
  return parse(bytes);
}

bool CMusicXml::loadText(const char* text, size_t size) {
  error_.clear();
  if (text == nullptr || size > static_cast<size_t>(kMaxScoreBytes)) return error_ = "over 64 MB", false;
  return parse(std::string(text, size));
}

bool CMusicXml::parse(const std::string& text) {
  xmlFreeDoc(static_cast<xmlDoc*>(doc_));
  doc_ = nullptr;
  parts_.clear();
  // No network, no entities substituted, no DTD loaded: a score is data.
  xmlDoc* doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "score.musicxml", nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                                  XML_PARSE_COMPACT);
  if (doc == nullptr) return error_ = "not a MusicXML file (not XML)", false;
  doc_ = doc;
  const xmlNode* root = xmlDocGetRootElement(doc);
  if (!named(root, "score-partwise") && !named(root, "score-timewise")) {
    return error_ = "not a MusicXML score (no score-partwise or score-timewise)", false;
  }
  listParts();
  if (parts_.empty()) return error_ = "the score has no part", false;
  return true;
}

void CMusicXml::listParts() {
  const ScoreParts score = scoreParts(xmlDocGetRootElement(static_cast<xmlDoc*>(doc_)));
  for (size_t k = 0; k < score.ids.size(); ++k) {
    Part part;
    part.id = score.ids[k];
    part.name = score.names[k];
    for (const xmlNode* measure : score.measures[k]) {
      for (const xmlNode* c = measure->children; c != nullptr; c = c->next) {
        if (!named(c, "note") || child(c, "grace") != nullptr || child(c, "pitch") == nullptr) continue;
        ++part.notes;
        part.lyrics = part.lyrics || child(c, "lyric") != nullptr;
      }
    }
    if (!score.measures[k].empty()) parts_.push_back(part);
  }
}

int32_t CMusicXml::defaultPart() const {
  for (size_t k = 0; k < parts_.size(); ++k) {
    if (parts_[k].lyrics) return static_cast<int32_t>(k);
  }
  for (size_t k = 0; k < parts_.size(); ++k) {
    if (parts_[k].notes > 0) return static_cast<int32_t>(k);
  }
  return 0;
}

int32_t CMusicXml::importPart(int32_t part, int32_t voice, int32_t verse, CNoteMan* man,
                              std::string* timeSignatures) {
  error_.clear();
  if (doc_ == nullptr || man == nullptr) return error_ = "no score read", -1;
  if (part < 0 || static_cast<size_t>(part) >= parts_.size()) {
    return error_ = "no part " + std::to_string(part + 1) + " (the score has " + std::to_string(parts_.size()) + ")",
           -1;
  }
  const xmlNode* root = xmlDocGetRootElement(static_cast<xmlDoc*>(doc_));
  const ScoreParts score = scoreParts(root);
  size_t scoreIndex = 0;
  while (scoreIndex < score.ids.size() && score.ids[scoreIndex] != parts_[static_cast<size_t>(part)].id) ++scoreIndex;
  const std::vector<const xmlNode*>& measures = score.measures[scoreIndex];

  // The voice: as asked, else the first that sings a pitched note.
  std::string wanted = voice > 0 ? std::to_string(voice) : std::string();
  for (size_t m = 0; m < measures.size() && wanted.empty(); ++m) {
    for (const xmlNode* c = measures[m]->children; c != nullptr && wanted.empty(); c = c->next) {
      if (named(c, "note") && child(c, "pitch") != nullptr && child(c, "grace") == nullptr) {
        const std::string v = textOf(child(c, "voice"));
        wanted = v.empty() ? "1" : v;
      }
    }
  }

  struct Made {
    int64_t start, end;
    int key;
    std::string lyric;
  };
  struct Tempo {
    int64_t tick;
    double bpm;
  };
  struct Signature {
    int32_t measure, beats, note;
  };
  std::vector<Made> made;
  std::vector<Tempo> tempos;
  std::vector<Signature> signatures;
  int64_t divisions = 1;
  int64_t measureTick = 0;  // where the measure starts
  bool melisma = false;
  for (size_t m = 0; m < measures.size(); ++m) {
    // The cursor counts divisions from `base`, a tick of the measure, so
    // that a change of divisions keeps what came before.
    int64_t base = measureTick, cursor = 0, furthest = 0, lastStart = 0;
    auto tickAt = [&](int64_t at) { return base + at * kTicksPerQuarter / divisions; };
    for (const xmlNode* c = measures[m]->children; c != nullptr; c = c->next) {
      if (named(c, "attributes")) {
        if (const xmlNode* d = child(c, "divisions")) {
          const long long value = number(textOf(d), 0);
          if (value < 1 || value > kMaxDivisions) {
            error_ = "absurd divisions (" + textOf(d) + ") in measure " + std::to_string(m + 1);
            return -1;
          }
          base = tickAt(cursor);
          furthest -= cursor;
          cursor = 0;
          divisions = value;
        }
        if (const xmlNode* time = child(c, "time")) {
          // "3+2" beats count as 5.
          int32_t beats = 0;
          const std::string text = textOf(child(time, "beats"));
          for (size_t at = 0; at < text.size();) {
            char* end = nullptr;
            const long value = strtol(text.c_str() + at, &end, 10);
            if (end == text.c_str() + at) break;
            beats += static_cast<int32_t>(std::clamp(value, 0L, 64L));
            at = static_cast<size_t>(end - text.c_str()) + (*end == '+' ? 1 : 0);
            if (*end != '+') break;
          }
          const long long note = number(textOf(child(time, "beat-type")), 0);
          if (beats > 0 && beats <= 64 && note > 0 && note <= 64 &&
              (signatures.empty() || signatures.back().beats != beats || signatures.back().note != note)) {
            signatures.push_back({static_cast<int32_t>(m), beats, static_cast<int32_t>(note)});
          }
        }
      } else if (named(c, "backup") || named(c, "forward")) {
        const int64_t d = std::clamp<long long>(number(textOf(child(c, "duration")), 0), 0, kMaxTick);
        // Never back before the measure's start.
        const int64_t earliest = -(base - measureTick) * divisions / kTicksPerQuarter;
        cursor = named(c, "backup") ? std::max<int64_t>(cursor - d, earliest) : cursor + d;
        furthest = std::max(furthest, cursor);
      } else if (named(c, "direction") || named(c, "sound")) {
        const double bpm = tempoOf(c);
        const int64_t offset =
            named(c, "direction") ? std::clamp<long long>(number(textOf(child(c, "offset")), 0), -kMaxTick, kMaxTick) : 0;
        const int64_t tick = tickAt(cursor + offset);
        if (bpm > 0.0 && tick >= 0 && tick <= kMaxTick) tempos.push_back({tick, std::clamp(bpm, 10.0, 1000.0)});
      } else if (named(c, "note")) {
        if (child(c, "grace") != nullptr) continue;
        const int64_t d = std::clamp<long long>(number(textOf(child(c, "duration")), 0), 0, kMaxTick);
        const bool chord = child(c, "chord") != nullptr;
        const int64_t start = chord ? lastStart : cursor;
        if (!chord) {
          lastStart = cursor;
          cursor += d;
          furthest = std::max(furthest, cursor);
        }
        const std::string v = textOf(child(c, "voice"));
        if ((v.empty() ? std::string("1") : v) != wanted) continue;
        const xmlNode* pitch = child(c, "pitch");
        if (pitch == nullptr) continue;  // a rest, or an unpitched note
        const int key = keyOf(pitch);
        if (key < 0) continue;
        const int64_t startTick = tickAt(start), endTick = tickAt(start + d);
        if (endTick > kMaxTick) {
          error_ = "the score lasts past 2^30 ticks";
          return -1;
        }
        // A chord sings its top note.
        if (chord && !made.empty() && made.back().start == startTick) {
          if (key > made.back().key) made.back().key = key;
          continue;
        }
        // A tied note lengthens the one it continues.
        if (hasTie(c, "stop") && !made.empty() && made.back().key == key && made.back().end == startTick) {
          made.back().end = endTick;
          continue;
        }
        const Lyric lyric = lyricOf(c, verse);
        std::string text;
        if (lyric.present) {
          text = lyric.text;
          melisma = lyric.extend > 0;
        } else if (melisma || lyric.extend != 0) {
          text = "-";  // under the extend line: the syllable goes on
          melisma = lyric.extend >= 0 && melisma;
        }
        if (made.size() >= static_cast<size_t>(kMaxNotes)) {
          error_ = "more than " + std::to_string(kMaxNotes) + " notes";
          return -1;
        }
        made.push_back({startTick, endTick, key, text});
      }
    }
    measureTick = tickAt(furthest);
  }
  if (made.empty()) {
    error_ = "part " + std::to_string(part + 1) + " has no notes in voice " + wanted;
    return -1;
  }

  std::stable_sort(made.begin(), made.end(), [](const Made& a, const Made& b) { return a.start < b.start; });
  std::stable_sort(tempos.begin(), tempos.end(), [](const Tempo& a, const Tempo& b) { return a.tick < b.tick; });
  ctonm2& engine = *man->engine();
  const int32_t layer = std::max(man->targetLayer(), 0);
  NoteAppender append(man);
  size_t nextTempo = 0;
  auto addTempo = [&](const Tempo& tempo) {
    if (tempo.tick == 0 && engine.noteCount == 0) {
      engine.tempo = static_cast<float>(tempo.bpm);
      return;
    }
    NoteData rest = tempoRecord(static_cast<float>(tempo.bpm), layer);
    append.add(tempo.tick, &rest);
  };
  int32_t count = 0;
  std::string previous;
  for (const Made& note : made) {
    while (nextTempo < tempos.size() && tempos[nextTempo].tick <= note.start) addTempo(tempos[nextTempo++]);
    std::string lyric = note.lyric.empty() ? "あ" : note.lyric;
    const std::string vowel = continuingVowel(previous);
    if ((lyric == "-" || lyric == "+") && !vowel.empty()) lyric = vowel;
    previous = lyric;
    NoteData record;
    memset(&record, 0, sizeof record);
    record.Length = static_cast<int32_t>(std::clamp<int64_t>(note.end - note.start, 1, kMaxTick));
    record.NoteNum = static_cast<int16_t>(note.key);
    strcpy_utf8_n(record.Lyric, lyric.c_str(), sizeof record.Lyric);
    ctonm2::default_env(record.Envelope);
    CNoteMan::defaultPitch(&record);
    record.Intensity = 100;
    record.Velocity = 100.0f;
    record.PreUtterance = record.VoiceOverlap = NAN;
    record.selected = 1;
    record.layer = layer;
    if (append.add(note.start, &record)) ++count;
  }
  while (nextTempo < tempos.size()) addTempo(tempos[nextTempo++]);

  // The time signatures as measures of each, from 4/4 until the first.
  if (timeSignatures != nullptr) {
    std::string text;
    Signature current = {0, 4, 4};
    for (const Signature& s : signatures) {
      if (s.measure > current.measure) {
        text += "(" + std::to_string(current.beats) + "/" + std::to_string(current.note) + "/" +
                std::to_string(s.measure - current.measure) + "),";
      }
      current = s;
    }
    *timeSignatures = text + "(" + std::to_string(current.beats) + "/" + std::to_string(current.note) + "/0),";
  }
  // The work's title names the project when it has none.
  std::string title;
  if (const xmlNode* work = child(root, "work")) title = textOf(child(work, "work-title"));
  if (title.empty()) title = textOf(child(root, "movement-title"));
  if (!title.empty() && (engine.projectName[0] == '\0' || strcmp(engine.projectName, "(no title)") == 0)) {
    engine.set_projectName(title.c_str());
  }
  return count;
}

// --- Export -----------------------------------------------------------------------------

namespace {

struct Sung {
  int64_t start, end;
  int key;
  std::string lyric;
};

// The written values a length is made of, longest first: whole to 128th,
// each plain, dotted or double-dotted; what no value fits is left whole.
struct Written {
  int64_t ticks;
  const char* type;
  int dots;
};

std::vector<Written> writtenValues(int64_t ticks) {
  static const std::pair<int64_t, const char*> kPlain[] = {{1920, "whole"}, {960, "half"}, {480, "quarter"},
                                                          {240, "eighth"}, {120, "16th"},  {60, "32nd"},
                                                          {30, "64th"},    {15, "128th"}};
  std::vector<Written> values;
  while (ticks > 0) {
    Written best = {0, nullptr, 0};
    for (const auto& [length, type] : kPlain) {
      for (int dots = 2; dots >= 0; --dots) {
        const int64_t value = dots == 2 ? length * 7 / 4 : dots == 1 ? length * 3 / 2 : length;
        if ((dots == 0 || length % 4 == 0 || (dots == 1 && length % 2 == 0)) && value <= ticks && value > best.ticks) {
          best = {value, type, dots};
        }
      }
    }
    if (best.ticks == 0) best = {ticks, nullptr, 0};
    values.push_back(best);
    ticks -= best.ticks;
  }
  return values;
}

class ScoreWriter {
 public:
  explicit ScoreWriter(xmlTextWriterPtr w) : w_(w) {}
  void open(const char* name) { ok_ = ok_ && xmlTextWriterStartElement(w_, BAD_CAST name) >= 0; }
  void close() { ok_ = ok_ && xmlTextWriterEndElement(w_) >= 0; }
  void element(const char* name, const std::string& text) {
    ok_ = ok_ && xmlTextWriterWriteElement(w_, BAD_CAST name, BAD_CAST text.c_str()) >= 0;
  }
  void empty(const char* name, const char* attributeName = nullptr, const char* value = nullptr) {
    open(name);
    if (attributeName != nullptr) attribute(attributeName, value);
    close();
  }
  void attribute(const char* name, const std::string& value) {
    ok_ = ok_ && xmlTextWriterWriteAttribute(w_, BAD_CAST name, BAD_CAST value.c_str()) >= 0;
  }
  bool ok() const { return ok_; }

 private:
  xmlTextWriterPtr w_;
  bool ok_ = true;
};

}  // namespace

bool CMusicXml::write(const char* path, CNoteMan* man, std::string* error) {
  if (path == nullptr || man == nullptr) return *error = "nothing to write", false;
  ctonm2& engine = *man->engine();
  // The sounding notes, one at a time: a note that starts under another
  // cuts it short (on one tick, the first stays).
  std::vector<Sung> notes;
  struct Tempo {
    int64_t tick;
    float bpm;
  };
  std::vector<Tempo> tempos = {{0, engine.tempo > 0.0f ? engine.tempo : 120.0f}};
  int64_t position = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    position += note.Delta;
    if (note.Tempo > 0.0f) {
      if (position == 0) {
        tempos[0].bpm = note.Tempo;
      } else {
        tempos.push_back({position, note.Tempo});
      }
    }
    if (ctonm2::is_r(note.Lyric) || note.Length <= 0 || note.NoteNum < 0 || note.NoteNum > 127) continue;
    notes.push_back({position, position + note.Length, note.NoteNum, note.Lyric});
  }
  std::stable_sort(notes.begin(), notes.end(), [](const Sung& a, const Sung& b) { return a.start < b.start; });
  std::vector<Sung> line;
  for (const Sung& note : notes) {
    if (!line.empty() && line.back().start == note.start) continue;
    if (!line.empty() && line.back().end > note.start) line.back().end = note.start;
    line.push_back(note);
  }
  std::stable_sort(tempos.begin(), tempos.end(), [](const Tempo& a, const Tempo& b) { return a.tick < b.tick; });
  const int64_t songEnd = line.empty() ? 0 : line.back().end;

  // Measures as the time signatures lay them out.
  struct Measure {
    int64_t start, length;
    int32_t beats, note;
  };
  std::vector<Measure> measures;
  const CScaleMan* scale = man->scale();
  int32_t k = 0, inEntry = 0;
  for (int64_t start = 0; start < songEnd || measures.empty();) {
    const TimeSignature* entry = scale != nullptr && scale->count() > 0 ? &scale->entries()[k] : nullptr;
    const int32_t beats = entry != nullptr ? std::max(entry->beats, 1) : 4;
    const int32_t note = entry != nullptr ? std::max(entry->note, 1) : 4;
    const int64_t length = std::max<int64_t>(1920 * beats / note, 1);
    measures.push_back({start, length, beats, note});
    start += length;
    if (entry != nullptr && entry->measures > 0 && ++inEntry >= entry->measures && k + 1 < scale->count()) {
      ++k;
      inEntry = 0;
    }
  }

  SafeOutput out(path);
  if (out.path().empty()) return *error = strerror(errno != 0 ? errno : EIO), false;
  xmlTextWriterPtr w = xmlNewTextWriterFilename(out.path().c_str(), 0);
  if (w == nullptr) return *error = "cannot write " + std::string(path), false;
  xmlTextWriterSetIndent(w, 1);
  xmlTextWriterSetIndentString(w, BAD_CAST "  ");
  ScoreWriter x(w);
  bool ok = xmlTextWriterStartDocument(w, "1.0", "UTF-8", "no") >= 0 &&
            xmlTextWriterWriteDTD(w, BAD_CAST "score-partwise", BAD_CAST "-//Recordare//DTD MusicXML 4.0 Partwise//EN",
                                  BAD_CAST "http://www.musicxml.org/dtds/partwise.dtd", nullptr) >= 0;
  x.open("score-partwise");
  x.attribute("version", "4.0");
  if (engine.projectName[0] != '\0' && strcmp(engine.projectName, "(no title)") != 0) {
    x.open("work");
    x.element("work-title", engine.projectName);
    x.close();
  }
  x.open("part-list");
  x.open("score-part");
  x.attribute("id", "P1");
  x.element("part-name", "Voice");
  x.close();
  x.close();
  x.open("part");
  x.attribute("id", "P1");

  static const char* const kSteps[12] = {"C", "C", "D", "D", "E", "F", "F", "G", "G", "A", "A", "B"};
  static const bool kSharp[12] = {false, true, false, true, false, false, true, false, true, false, true, false};
  size_t next = 0, nextTempo = 0;
  for (size_t m = 0; m < measures.size(); ++m) {
    const Measure& measure = measures[m];
    const int64_t end = measure.start + measure.length;
    x.open("measure");
    x.attribute("number", std::to_string(m + 1));
    if (m == 0 || measure.beats != measures[m - 1].beats || measure.note != measures[m - 1].note) {
      x.open("attributes");
      if (m == 0) {
        x.element("divisions", std::to_string(kTicksPerQuarter));
        x.open("key");
        x.element("fifths", "0");
        x.close();
      }
      x.open("time");
      x.element("beats", std::to_string(measure.beats));
      x.element("beat-type", std::to_string(measure.note));
      x.close();
      if (m == 0) {
        x.open("clef");
        x.element("sign", "G");
        x.element("line", "2");
        x.close();
      }
      x.close();
    }
    // The stretch from `from` to `to`: a rest or a piece of a note, in
    // written values tied together.
    auto writeStretch = [&](int64_t from, int64_t to, const Sung* note, bool tiedIn, bool tiedOut) {
      // Tempo marks due by the start of the stretch, at their place.
      while (nextTempo < tempos.size() && tempos[nextTempo].tick < to) {
        const Tempo& tempo = tempos[nextTempo++];
        x.open("direction");
        x.attribute("placement", "above");
        x.open("direction-type");
        x.open("metronome");
        x.element("beat-unit", "quarter");
        char bpm[32];
        snprintf(bpm, sizeof bpm, "%g", static_cast<double>(tempo.bpm));
        x.element("per-minute", bpm);
        x.close();
        x.close();
        if (tempo.tick > from) x.element("offset", std::to_string(tempo.tick - from));
        x.empty("sound", "tempo", bpm);
        x.close();
      }
      const std::vector<Written> values = writtenValues(to - from);
      for (size_t v = 0; v < values.size(); ++v) {
        const bool in = note != nullptr && (tiedIn || v > 0);
        const bool onward = note != nullptr && (tiedOut || v + 1 < values.size());
        x.open("note");
        if (note == nullptr) {
          x.empty("rest");
        } else {
          x.open("pitch");
          x.element("step", kSteps[note->key % 12]);
          if (kSharp[note->key % 12]) x.element("alter", "1");
          x.element("octave", std::to_string(note->key / 12 - 1));
          x.close();
        }
        x.element("duration", std::to_string(values[v].ticks));
        if (in) x.empty("tie", "type", "stop");
        if (onward) x.empty("tie", "type", "start");
        x.element("voice", "1");
        if (values[v].type != nullptr) {
          x.element("type", values[v].type);
          for (int dot = 0; dot < values[v].dots; ++dot) x.empty("dot");
        }
        if (in || onward) {
          x.open("notations");
          if (in) x.empty("tied", "type", "stop");
          if (onward) x.empty("tied", "type", "start");
          x.close();
        }
        if (note != nullptr && !in && !note->lyric.empty()) {
          x.open("lyric");
          x.attribute("number", "1");
          x.element("syllabic", "single");
          x.element("text", note->lyric);
          x.close();
        }
        x.close();
      }
    };
    int64_t at = measure.start;
    while (at < end) {
      while (next < line.size() && line[next].end <= at) ++next;
      if (next >= line.size() || line[next].start >= end) {
        writeStretch(at, end, nullptr, false, false);
        break;
      }
      const Sung& note = line[next];
      if (note.start > at) {
        writeStretch(at, note.start, nullptr, false, false);
        at = note.start;
        continue;
      }
      const int64_t until = std::min(note.end, end);
      writeStretch(at, until, &note, note.start < at, note.end > until);
      at = until;
    }
    x.close();
  }
  x.close();  // part
  x.close();  // score-partwise
  ok = ok && x.ok() && xmlTextWriterEndDocument(w) >= 0;
  xmlFreeTextWriter(w);
  if (!ok || !out.commit()) return *error = "cannot write " + std::string(path), false;
  return true;
}
