#include "midi/midiman.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midifile.h"
#include "midi/note_appender.h"
#include "midi/vsqtable.h"
#include "support/multibyte.h"
#include "support/textcopy.h"
#include "support/textfile.h"
#include "voicebank/kana.h"

namespace {

struct Event {
  int64_t tick;  // absolute, in the file's division
  uint8_t status, data1, data2;
  std::string text;  // payload of a meta event
};

struct Track {
  std::vector<Event> events;
  bool hasLyrics = false;
  std::string name;  // raw bytes
};

// The whole file, checked: false with *error on a file that is not one.
bool parseFile(const char* path, int32_t* format, int32_t* division, int32_t* trackCount, bool* timeCode,
               std::vector<Track>* tracks, std::string* error, size_t maxEvents) {
  CMIDIReader in;
  if (!in.open(path)) return *error = std::string("cannot open '") + path + "': " + strerror(errno), false;
  if (in.readHeader() != 1) return *error = "not a MIDI file (no MThd header)", false;
  *format = in.format();
  *division = in.division();
  *trackCount = in.tracks();
  *timeCode = in.timeCode();
  if (*format == 2) return *error = "format 2 (independent patterns) is not imported", false;
  if (*division <= 0) return *error = "a division of 0 ticks per quarter", false;
  in.moveTo(14);
  size_t events = 0;
  for (int32_t k = 0; k < *trackCount; ++k) {
    if (in.remaining() < 8) break;
    if (static_cast<uint32_t>(in.readInt2()) != midiTag("MTrk")) break;  // another chunk ends the tracks
    const int64_t length = static_cast<uint32_t>(in.readInt());
    const long start = in.curPos();
    if (length > in.remaining()) {
      *error = "track " + std::to_string(k) + " claims " + std::to_string(length) + " bytes, past the end of the file";
      return false;
    }
    const long end = start + static_cast<long>(length);
    Track track;
    int64_t tick = 0;
    MIDIMessage message;
    while (in.curPos() < end) {
      message.size = 0;
      const int32_t status = in.readMessage(&message);
      if (in.curPos() > end || in.cutShort()) {
        *error = "track " + std::to_string(k) + ": an event runs past the end of its track";
        return false;
      }
      tick += message.delta;
      if (status == 0) continue;  // a data byte with no status to go with it
      Event event{tick, message.status, message.data1, message.data2, ""};
      if (status == 0xFF && message.size > 0 && message.data != nullptr) {
        event.text.assign(reinterpret_cast<const char*>(message.data), static_cast<size_t>(message.size));
      }
      if (++events > maxEvents) {
        *error = "more than " + std::to_string(maxEvents) + " events: no song is that long";
        return false;
      }
      if (status == 0xFF && message.data1 == 0x05) track.hasLyrics = true;
      if (status == 0xFF && message.data1 == 0x03 && track.name.empty()) track.name = event.text;
      track.events.push_back(std::move(event));
      if (status == 0xFF && message.data1 == 0x2F) break;
    }
    in.moveTo(end);
    tracks->push_back(std::move(track));
  }
  if (tracks->empty()) return *error = "no track in the file", false;
  return true;
}

// The valid UTF-8 beginning of a text (up to the first bad sequence).
std::string validUtf8(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3
                        : lead >= 0xF0 && lead <= 0xF4                  ? 4
                                                                        : 0;
    if (length == 0 || i + length > text.size()) break;
    if (length > 1 && !looksLikeUtf8(text.data() + i, length)) break;
    i += length;
  }
  return text.substr(0, i);
}

// Texts of a file as UTF-8, each judged by its own bytes (valid UTF-8 with
// non-ASCII bytes: UTF-8, else Shift_JIS), since files mix them (a
// Shift_JIS track name over UTF-8 lyrics); a forced charset decides all.
class TextReader {
 public:
  explicit TextReader(const std::string& forced) : forced_(forced) {}
  // A text of the file as UTF-8: never invalid.
  std::string operator()(const std::string& raw) {
    const bool utf8 = forced_.empty() ? looksLikeUtf8(raw.data(), raw.size()) : forced_ == "utf-8";
    if (utf8) return validUtf8(raw);
    const char* converted = cm_.sjisToUtf8(raw.c_str());
    return converted != nullptr ? converted : "";
  }

 private:
  std::string forced_;
  CMultiByte cm_;
};

// The tempo of a tempo event in beats per minute, to 0.01; 0 for a
// damaged one.
double bpmOf(const Event& event) {
  if (event.text.size() < 3) return 0.0;
  const uint8_t* b = reinterpret_cast<const uint8_t*>(event.text.data());
  const int64_t micros = (int64_t(b[0]) << 16) | (int64_t(b[1]) << 8) | b[2];
  return micros > 0 ? std::round(60000000.0 / micros * 100.0) / 100.0 : 0.0;
}

// A track chunk: its tag and a length to be filled in, and its end: the
// end-of-track event and the length of what came between.
long beginTrack(CMIDIWriter& out) {
  out.writeUInt(midiTag("MTrk"));
  const long lengthAt = out.curPos();
  out.writeLong(0);
  return lengthAt;
}

void endTrack(CMIDIWriter& out, long lengthAt) {
  out.writeDeltaTime(0);
  out.writeByte(0xFF);
  out.writeByte(0x2F);
  out.writeByte(0x00);
  const long end = out.curPos();
  out.moveTo(lengthAt);
  out.writeLong(static_cast<int32_t>(end - lengthAt - 4));
  out.moveTo(end);
}

// A tempo event: FF 51 03 and the microseconds of a quarter.
void writeTempoEvent(CMIDIWriter& out, int32_t delta, float bpm) {
  out.writeDeltaTime(delta);
  out.writeByte(0xFF);
  out.writeByte(0x51);
  out.writeByte(0x03);
  out.write3ByteNumber(static_cast<int32_t>(std::lround(60000000.0 / (bpm > 0.0f ? bpm : 120.0f))));
}

}  // namespace

std::string continuingVowel(const std::string& lyric) {
  const std::string romaji = kanaToRomaji(lyric);
  if (romaji.empty()) return "";
  switch (romaji.back()) {
    case 'a': return "あ";
    case 'i': return "い";
    case 'u': return "う";
    case 'e': return "え";
    case 'o': return "お";
    case 'n': return "ん";
    default: return "";
  }
}

int32_t CMIDIMan::importMIDIFile(const char* path, int32_t track, int32_t channel, CNoteMan* man,
                                 std::string* timeSignatures) {
  error_.clear();
  warnings_.clear();
  std::vector<Track> tracks;
  bool timeCode = false;
  if (path == nullptr || man == nullptr ||
      !parseFile(path, &format_, &division_, &tracks_, &timeCode, &tracks, &error_, maxEvents_)) {
    return -1;
  }
  const size_t noteTrack = format_ == 0 ? 0 : static_cast<size_t>(std::max(track, 0));
  if (noteTrack >= tracks.size()) {
    error_ = "no track " + std::to_string(track) + " (the file has " + std::to_string(tracks.size()) + ")";
    return -1;
  }
  ctonm2& engine = *man->engine();
  TextReader text(charset_);
  const int64_t division = division_;
  // In 480 per quarter, kept within 2^30 ticks (beyond that a file has no
  // song in it, only huge numbers).
  auto ticks = [&](int64_t t) { return std::min<int64_t>(t * 480 / division, int64_t(1) << 30); };
  NoteAppender append(man);
  const int32_t layer = std::max(man->targetLayer(), 0);

  // Tempo changes, the project name and the time signatures: from the
  // first chunk and the note track, in time order.
  std::vector<const Event*> metas;
  for (size_t k : {size_t(0), noteTrack}) {
    for (const Event& event : tracks[k].events) {
      if (event.status == 0xFF) metas.push_back(&event);
    }
    if (noteTrack == 0) break;
  }
  std::stable_sort(metas.begin(), metas.end(), [](const Event* a, const Event* b) { return a->tick < b->tick; });
  int32_t numerator = 4, denominator = 4;
  int64_t signatureTick = 0;
  std::string signatures;
  struct TempoChange {
    int64_t tick;
    float bpm;
  };
  std::vector<TempoChange> tempos;
  if (!tracks[0].name.empty()) engine.set_projectName(text(tracks[0].name).c_str());
  for (const Event* event : metas) {
    if (event->data1 == 0x51 && event->text.size() >= 3 && !timeCode) {
      double bpm = bpmOf(*event);
      if (bpm == 0.0) bpm = 120.0;
      if (bpm < 10.0 || bpm > 1000.0) {
        const double clamped = std::clamp(bpm, 10.0, 1000.0);
        warnings_.push_back("tempo " + std::to_string(bpm) + " at tick " + std::to_string(event->tick) +
                            " is outside 10..1000 BPM; " + std::to_string(clamped) + " taken");
        bpm = clamped;
      }
      tempos.push_back({ticks(event->tick), static_cast<float>(bpm)});
    } else if (event->data1 == 0x58 && event->text.size() >= 2) {
      const int32_t num = static_cast<uint8_t>(event->text[0]);
      const int32_t den = 1 << std::min<int32_t>(static_cast<uint8_t>(event->text[1]), 6);
      if (num < 1) continue;
      // The measure length as it has always been taken: exact for 4/4 and
      // where the numerator equals the denominator.
      const int64_t measure = std::max<int64_t>(4 * division / numerator * denominator, 1);
      const int64_t measures = (event->tick - signatureTick) / measure;
      if (measures > 0) signatures += "(" + std::to_string(numerator) + "/" + std::to_string(denominator) + "/" +
                                      std::to_string(measures) + "),";
      numerator = num;
      denominator = den;
      signatureTick = event->tick;
    }
  }
  signatures += "(" + std::to_string(numerator) + "/" + std::to_string(denominator) + "/0),";
  if (timeSignatures != nullptr) *timeSignatures = signatures;

  // The notes: a note-on opens a key on its channel, a note-off (or a
  // note-on of velocity 0, or a later note-on of the same key) closes it.
  const Track& source = tracks[noteTrack];
  // Text events are lyrics in karaoke files: a track without lyric events
  // whose texts sit on note starts. Then only those texts are sung, never
  // a title or a copyright line before the song.
  std::vector<int64_t> noteStarts;  // the ticks where notes start, in order (events are in time order)
  for (const Event& event : source.events) {
    if ((event.status & 0xF0) == 0x90 && event.data2 > 0 && (channel < 0 || (event.status & 0x0F) == channel) &&
        (noteStarts.empty() || noteStarts.back() != event.tick)) {
      noteStarts.push_back(event.tick);
    }
  }
  auto startsThere = [&](int64_t tick) { return std::binary_search(noteStarts.begin(), noteStarts.end(), tick); };
  int textsOnStarts = 0, texts = 0;
  for (const Event& event : source.events) {
    if (event.status != 0xFF || event.data1 != 0x01) continue;
    ++texts;
    textsOnStarts += startsThere(event.tick) ? 1 : 0;
  }
  const bool karaoke = !source.hasLyrics && textsOnStarts > 0 && textsOnStarts * 2 >= texts &&
                       textsOnStarts * 2 >= static_cast<int>(noteStarts.size());
  const bool lyricsFromText = textLyrics_ == TextLyrics::kYes || (textLyrics_ == TextLyrics::kAuto && karaoke);
  struct Made {
    int64_t start, end;
    int32_t key, velocity;
    std::string lyric;
  };
  std::vector<Made> made;
  // A lyric belongs to the note it sits on: the note starting on its tick
  // (written before or after the note-on), else the note sounding then
  // (taken when that note ends), else the next note to start. Two on one
  // note: the last one.
  std::vector<size_t> open(16 * 128, SIZE_MAX);  // channel * 128 + key -> its note in `made`
  int64_t lastStartTick = -1;  // where the latest note started, and the first note made there
  size_t firstAtLastStart = SIZE_MAX;
  std::string pending;
  size_t latestOpen = SIZE_MAX;
  for (size_t i = 0; i < source.events.size(); ++i) {
    const Event& event = source.events[i];
    if (event.status == 0xFF) {
      const bool sung = event.data1 == 0x01 && lyricsFromText &&
                        (textLyrics_ == TextLyrics::kYes || startsThere(event.tick));
      if (event.data1 != 0x05 && !sung) continue;
      std::string lyric = text(event.text);
      // Karaoke texts mark a new line with "/" and a new verse with "\".
      if (event.data1 == 0x01) lyric.erase(0, lyric.find_first_not_of("/\\"));
      if (lyric.empty()) continue;
      if (lastStartTick == event.tick) {
        made[firstAtLastStart].lyric = lyric;
      } else if (!startsThere(event.tick) && latestOpen != SIZE_MAX) {
        made[latestOpen].lyric = lyric;
      } else {
        pending = lyric;
      }
      continue;
    }
    const int32_t kind = event.status & 0xF0, eventChannel = event.status & 0x0F;
    if ((kind != 0x90 && kind != 0x80) || (channel >= 0 && eventChannel != channel)) continue;
    const size_t slot = static_cast<size_t>(eventChannel * 128 + (event.data1 & 0x7F));
    // A note-off, a note-on of velocity 0, or a later note-on of the same
    // key ends the note sounding on that key.
    if (open[slot] != SIZE_MAX) {
      made[open[slot]].end = event.tick;
      if (latestOpen == open[slot]) latestOpen = SIZE_MAX;
      open[slot] = SIZE_MAX;
    }
    if (kind == 0x90 && event.data2 > 0) {
      if (made.size() >= static_cast<size_t>(maxNotes_)) {
        error_ = "more than " + std::to_string(maxNotes_) + " notes: no song has that many";
        return -1;
      }
      made.push_back({event.tick, -1, event.data1, event.data2, pending});
      pending.clear();
      open[slot] = latestOpen = made.size() - 1;
      if (lastStartTick != event.tick) firstAtLastStart = made.size() - 1;
      lastStartTick = event.tick;
    }
  }
  // Notes never ended are dropped; a note with no lyric sings あ, and a
  // melisma mark continues the previous syllable's vowel.
  made.erase(std::remove_if(made.begin(), made.end(), [](const Made& m) { return m.end < 0; }), made.end());
  std::string previousLyric;
  for (Made& note : made) {
    if (note.lyric.empty()) note.lyric = "あ";
    const std::string vowel = continuingVowel(previousLyric);
    if ((note.lyric == "+" || note.lyric == "-") && !vowel.empty()) note.lyric = vowel;
    previousLyric = note.lyric;
  }
  std::stable_sort(made.begin(), made.end(), [](const Made& a, const Made& b) { return a.start < b.start; });

  // Into the note list, tempo changes among the notes at their places.
  size_t nextTempo = 0;
  int32_t count = 0;
  auto addTempo = [&](const TempoChange& change) {
    if (change.tick == 0 && engine.noteCount == 0) {
      engine.tempo = change.bpm;  // the song's own tempo
      return;
    }
    NoteData rest = tempoRecord(change.bpm, layer);
    append.add(change.tick, &rest);
  };
  for (const Made& note : made) {
    const int64_t start = ticks(note.start);
    while (nextTempo < tempos.size() && tempos[nextTempo].tick <= start) addTempo(tempos[nextTempo++]);
    NoteData record;
    memset(&record, 0, sizeof record);
    record.Length = static_cast<int32_t>(std::clamp<int64_t>((note.end - note.start) * 480 / division, 1, int64_t(1) << 30));
    record.NoteNum = static_cast<int16_t>(note.key);
    strcpy_utf8_n(record.Lyric, note.lyric.c_str(), sizeof record.Lyric);
    ctonm2::default_env(record.Envelope);
    CNoteMan::defaultPitch(&record);
    record.Intensity = static_cast<int32_t>(std::floor((note.velocity + 20.0) * (note.velocity + 20.0) / 140.0 - 2.0));
    record.Velocity = 100.0f;
    record.PreUtterance = record.VoiceOverlap = NAN;
    record.selected = 1;
    record.layer = layer;
    if (append.add(start, &record)) ++count;
  }
  while (nextTempo < tempos.size()) addTempo(tempos[nextTempo++]);
  return count;
}

std::vector<std::string> CMIDIMan::getTrackList(const char* path) {
  std::vector<std::string> list;
  std::vector<Track> tracks;
  bool timeCode = false;
  error_.clear();
  if (!parseFile(path, &format_, &division_, &tracks_, &timeCode, &tracks, &error_, maxEvents_)) return list;
  TextReader text(charset_);
  for (size_t k = 0; k < tracks.size(); ++k) {
    int notes = 0;
    for (const Event& event : tracks[k].events) notes += (event.status & 0xF0) == 0x90 && event.data2 > 0;
    char head[32];
    snprintf(head, sizeof head, "Track%02d: ", static_cast<int>(k));
    list.push_back(head + text(tracks[k].name) + " (" + std::to_string(notes) + " notes" +
                   (tracks[k].hasLyrics ? ", lyrics)" : ")"));
  }
  return list;
}

std::vector<std::string> CMIDIMan::getChannelList(const char* path, int32_t track) {
  std::vector<std::string> list;
  std::vector<Track> tracks;
  bool timeCode = false;
  error_.clear();
  if (!parseFile(path, &format_, &division_, &tracks_, &timeCode, &tracks, &error_, maxEvents_)) return list;
  if (track < 0 || static_cast<size_t>(track) >= tracks.size()) return list;
  int counts[16] = {0};
  for (const Event& event : tracks[static_cast<size_t>(track)].events) {
    if ((event.status & 0xF0) == 0x90 && event.data2 > 0) ++counts[event.status & 0x0F];
  }
  for (int c = 0; c < 16; ++c) {
    if (counts[c] == 0) continue;
    char line[32];
    snprintf(line, sizeof line, "ch%02d:(%d notes)", c, counts[c]);
    list.push_back(line);
  }
  return list;
}

bool CMIDIMan::writeSMFFile(const char* path, CNoteMan* man) {
  CMIDIWriter out;
  if (path == nullptr || man == nullptr || !out.open(path)) return false;
  ctonm2& engine = *man->engine();
  out.writeHeader(1, 2, 480);

  auto writeTrack = [&](auto body) {
    const long lengthAt = beginTrack(out);
    body();
    endTrack(out, lengthAt);
  };
  // The conductor: the song's tempo, then every tempo change and every
  // time signature at its place (signatures first on a tick).
  struct Conductor {
    int64_t tick;
    float bpm;  // 0: a time signature
    int32_t beats, note;
  };
  std::vector<Conductor> conductor;
  int64_t at = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    at += engine.notes[i].Delta;
    if (engine.notes[i].Tempo > 0.0f) conductor.push_back({at, engine.notes[i].Tempo, 0, 0});
  }
  const CScaleMan* scale = man->scale();
  int64_t measureTick = 0;
  for (int32_t k = 0; scale != nullptr && k < scale->count(); ++k) {
    const TimeSignature& signature = scale->entries()[k];
    if (signature.beats < 1 || signature.beats > 255 || signature.note < 1) continue;
    conductor.push_back({measureTick, 0.0f, signature.beats, signature.note});
    if (signature.measures <= 0) break;
    measureTick += static_cast<int64_t>(signature.measures) * 1920 * signature.beats / signature.note;
  }
  std::stable_sort(conductor.begin(), conductor.end(), [](const Conductor& a, const Conductor& b) {
    return a.tick != b.tick ? a.tick < b.tick : (a.bpm == 0.0f) > (b.bpm == 0.0f);
  });
  writeTrack([&] {
    out.writeDeltaTime(0);
    out.writeMetaText(0x03, engine.projectName);
    writeTempoEvent(out, 0, engine.tempo);
    int64_t last = 0;
    for (const Conductor& event : conductor) {
      const int32_t delta = static_cast<int32_t>(event.tick - last);
      last = event.tick;
      if (event.bpm > 0.0f) {
        writeTempoEvent(out, delta, event.bpm);
        continue;
      }
      int32_t power = 0;
      while ((1 << (power + 1)) <= event.note && power < 6) ++power;
      out.writeDeltaTime(delta);
      const uint8_t meta[] = {0xFF, 0x58, 0x04, static_cast<uint8_t>(event.beats), static_cast<uint8_t>(power), 24, 8};
      out.writeBytes(meta, sizeof meta);
    }
  });

  // The notes, with their lyrics just before them; events in time order,
  // ends before starts on the same tick.
  struct Out {
    int64_t tick;
    int order;  // 0 note-off, 1 lyric, 2 note-on
    int32_t key, velocity;
    std::string lyric;
  };
  std::vector<Out> events;
  int64_t position = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    position += note.Delta;
    if (ctonm2::is_r(note.Lyric) || note.Length <= 0 || note.NoteNum < 0 || note.NoteNum > 127) continue;
    const int32_t velocity =
        std::clamp(static_cast<int32_t>(std::floor(std::sqrt(140.0 * (note.Intensity + 2.0)))) - 20, 1, 127);
    events.push_back({position, 1, 0, 0, note.Lyric});
    events.push_back({position, 2, note.NoteNum, velocity, ""});
    events.push_back({position + note.Length, 0, note.NoteNum, 0, ""});
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const Out& a, const Out& b) { return a.tick != b.tick ? a.tick < b.tick : a.order < b.order; });
  writeTrack([&] {
    int64_t last = 0;
    for (const Out& event : events) {
      out.writeDeltaTime(static_cast<int32_t>(event.tick - last));
      last = event.tick;
      if (event.order == 1) {
        out.writeMetaText(0x05, event.lyric.c_str());
      } else {
        out.writeByte(event.order == 2 ? 0x90 : 0x80);
        out.writeByte(event.key);
        out.writeByte(event.order == 2 ? event.velocity : 0x40);
      }
    }
  });
  return out.close();
}

// --- VSQ ---------------------------------------------------------------------------

namespace {

constexpr int64_t kPreRoll = 1920;  // one 4/4 measure at 480 ticks per quarter

std::string textf(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string textf(const char* pattern, ...) {
  char buffer[512];
  va_list args;
  va_start(args, pattern);
  vsnprintf(buffer, sizeof buffer, pattern, args);
  va_end(args);
  return buffer;
}

}  // namespace

std::vector<std::string> vsqTextEvents(const std::string& text) {
  std::vector<std::string> events;
  for (size_t at = 0, counter = 0; at < text.size(); at += 119, ++counter) {
    events.push_back(textf("DM:%04d:", static_cast<int>(counter)) + text.substr(at, 119));
  }
  return events;
}

std::string lyricToPhon(const char* lyric) {
  if (lyric == nullptr) return "a";
  CMultiByte cm;
  const char* converted = cm.sjisToUtf8(lyric);
  const std::string text = converted != nullptr ? converted : "";
  int count = 0;
  const VsqSyllable* rows = vsqTable(&count);
  for (int k = 0; k < count; ++k) {
    if (text == rows[k].kana) return rows[k].phoneme;
  }
  return "a";
}

int32_t phonToLyric(char* text) {
  if (text == nullptr) return 0;
  int count = 0;
  const VsqSyllable* rows = vsqTable(&count);
  for (int k = 0; k < count; ++k) {
    if (strcmp(text, rows[k].phoneme) == 0) {
      strcpy_utf8_n(text, rows[k].kana, 32);
      return 1;
    }
  }
  return 0;
}

int32_t transformLyric(char* lyric) {
  static const char* const kVowels[6][2] = {{"a", "あ"}, {"e", "え"}, {"i", "い"}, {"o", "お"}, {"u", "う"}, {"n", "ん"}};
  if (lyric == nullptr) return 0;
  for (const auto& vowel : kVowels) {
    if (strcmp(lyric, vowel[0]) == 0) {
      strcpy_n(lyric, vowel[1], 32);
      return 1;
    }
  }
  return 0;
}

void CMIDIMan::writeVSQTrack(CMIDIWriter& out, CNoteMan* man, int32_t layer, int32_t trackIndex, int32_t trackCount) {
  ctonm2& engine = *man->engine();
  const long lengthAt = beginTrack(out);
  out.writeDeltaTime(0);
  out.writeMetaText(0x03, textf("Voice%d", trackIndex).c_str());

  std::string events, ids, handles;
  int64_t position = kPreRoll;
  int32_t number = 0;
  CMultiByte cm;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    position += note.Delta;
    if (ctonm2::is_r(note.Lyric) || note.layer != layer) continue;
    ++number;
    const char* converted = cm.utf8ToSjis(note.Lyric);
    const std::string lyric = converted != nullptr ? converted : "";
    const std::string phoneme = lyricToPhon(lyric.c_str());
    const int32_t dynamics =
        std::clamp(static_cast<int32_t>(std::floor(std::sqrt(140.0 * note.Intensity + 280.0))) - 19, 0, 127);
    events += textf("%lld=ID#%04d\n", static_cast<long long>(position), number);
    ids += textf("[ID#%04d]\nType=Anote\nLength=%d\nNote#=%d\nDynamics=%d\nPMBendDepth=0\nPMBendLength=0\n"
                  "PMbPortamentoUse=0\nDEMdecGainRate=0\nDEMaccent=0\nLyricHandle=h#%04d\n",
                  number, note.Length, note.NoteNum, dynamics, number);
    handles += "[h#" + textf("%04d", number) + "]\nL0=\"" + lyric + "\",\"" + phoneme + "\",0.000000,64,0,0\n";
  }
  const int64_t eos = position + (engine.noteCount > 0 ? engine.notes[engine.noteCount - 1].Length : 0);
  std::string text = "[Common]\nVersion=DSB301\nName=Voice1\nColor=181,162,123\nDynamicsMode=1\nPlayMode=1\n";
  if (trackIndex == 0) {
    text += "[Master]\nPreMeasure=1\n[Mixer]\nMasterFeder=0\nMasterPanpot=0\nMasterMute=0\nOutputMode=0\nTracks=1\n";
    for (int32_t t = 0; t < trackCount; ++t) text += textf("Feder%d=0\nPanpot%d=0\nMute%d=0\nSolo%d=0\n", t, t, t, t);
  }
  text += "[EventList]\n0=ID#0000\n" + events + textf("%lld=EOS\n", static_cast<long long>(eos));
  text += "[ID#0000]\nType=Singer\nIconHandle=#h0000\n" + ids;
  text += "[h#0000]\nIconID=$07010000\nIDS=Miku\nOriginal=0\nCaption=\nLength=1\nLanguage=0\nProgram=0\n" + handles;

  for (const std::string& event : vsqTextEvents(text)) {
    out.writeDeltaTime(0);
    out.writeMetaText(0x01, event.c_str());
  }
  static const uint8_t kControllers[9][2] = {{99, 96}, {98, 0}, {6, 0}, {38, 0}, {98, 1}, {6, 0}, {99, 53}, {98, 2}, {6, 0}};
  for (const auto& controller : kControllers) {
    out.writeDeltaTime(0);
    out.writeByte(0xB0);
    out.writeByte(controller[0]);
    out.writeByte(controller[1]);
  }
  endTrack(out, lengthAt);
}

namespace {

// What a sequence text says of its timing: the pre-roll's measures in
// [Master] (-1: none said) and the earliest event of [EventList] after 0.
void scanSequence(const std::string& text, long long* preMeasures, long long* earliest) {
  bool master = false, events = false;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    if (!line.empty() && line[0] == '[') {
      master = line.rfind("[Master]", 0) == 0;
      events = line.rfind("[EventList]", 0) == 0;
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    if (master && line.compare(0, equals, "PreMeasure") == 0 && *preMeasures < 0) {
      *preMeasures = std::clamp(strtoll(line.c_str() + equals + 1, nullptr, 10), 0LL, 1000LL);
    } else if (events && equals + 1 < line.size() && line[equals + 1] != 'E') {
      const long long tick = std::clamp(strtoll(line.c_str(), nullptr, 10), 0LL, 1LL << 30);
      if (tick > 0) *earliest = std::min(*earliest, tick);
    }
  }
}

}  // namespace

int64_t CMIDIMan::preRollTicks(long long measures) const {
  // Each measure as long as the master track's signature in force there.
  int64_t tick = 0;
  for (long long m = 0; m < measures; ++m) {
    int32_t beats = 4, note = 4;
    for (const MasterSignature& signature : masterSignatures_) {
      if (signature.tick <= tick) beats = signature.beats, note = signature.note;
    }
    tick += int64_t(1920) * beats / note;
  }
  return tick;
}

int32_t CMIDIMan::importVSQText(int32_t layer, const char* text, CNoteMan* man) {
  if (text == nullptr || man == nullptr) return 0;
  ctonm2& engine = *man->engine();
  if (layer < 0) layer = std::max(man->targetLayer(), 0);
  const std::string all = text;
  const bool utf8 = charset_.empty() ? looksLikeUtf8(all.data(), all.size()) : charset_ == "utf-8";
  // The song is moved back by its pre-roll, or less where events sit
  // inside the pre-roll: they keep their order and distance.
  int64_t shift = shift_;
  if (shift < 0) {
    long long preMeasures = -1, earliest = 1LL << 30;
    scanSequence(all, &preMeasures, &earliest);
    shift = std::min<int64_t>(preRollTicks(std::max(preMeasures, 0LL)), earliest);
  }
  CMultiByte cm;
  enum class Section { kOther, kMaster, kEventList, kEvent, kHandle } section = Section::kOther;
  int32_t inserted = 0, eventNote = -1, handleNote = -1, current = -1;
  // The note whose placeholder lyric is `name`, from `from` on.
  auto findNote = [&](const std::string& name, int32_t from) {
    for (int32_t i = std::max(from, 0); i < engine.noteCount; ++i) {
      if (engine.notes[i].layer == layer && name == engine.notes[i].Lyric) return i;
    }
    return -1;
  };
  size_t begin = 0;
  while (begin < all.size()) {
    size_t end = all.find('\n', begin);
    if (end == std::string::npos) end = all.size();
    std::string line = all.substr(begin, end - begin);
    begin = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line[0] == '[') {
      const std::string name = line.substr(1, line.find(']') == std::string::npos ? std::string::npos : line.find(']') - 1);
      if (line.rfind("[Master]", 0) == 0) {
        section = Section::kMaster;
      } else if (line.rfind("[EventList]", 0) == 0) {
        section = Section::kEventList;
      } else if (line.rfind("[ID#", 0) == 0) {
        section = Section::kEvent;
        current = eventNote = findNote(name.substr(0, 15), eventNote);
        if (current >= 0) {
          NoteData& note = engine.notes[current];
          note.Velocity = 100.0f;
          note.PreUtterance = note.VoiceOverlap = NAN;
          note.selected = 1;
          note.layer = layer;
        }
      } else if (line.rfind("[h#", 0) == 0) {
        section = Section::kHandle;
        current = handleNote = findNote(name.substr(0, 15), handleNote);
      } else {
        section = Section::kOther;
      }
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
    // Numbers are read clamped to what a song can hold.
    auto number = [](const std::string& digits, long long low, long long high) {
      return std::clamp<long long>(strtoll(digits.c_str(), nullptr, 10), low, high);
    };
    if (section == Section::kEventList) {
      const long long tick = number(key, 0, 1LL << 30);
      if (tick <= 0 || value.empty() || value[0] == 'E') continue;
      const int64_t position = std::max<int64_t>(tick - shift, 0);
      const int32_t slot = man->insertNotePosition(position, 120, 48, value.c_str());
      if (slot >= 0) {
        engine.notes[slot].layer = layer;
        ++inserted;
      }
    } else if (section == Section::kEvent && current >= 0) {
      NoteData& note = engine.notes[current];
      if (key == "Length") {
        note.Length = static_cast<int32_t>(number(value, 1, 1LL << 30));
      } else if (key == "Note#") {
        note.NoteNum = static_cast<int16_t>(number(value, 0, 127));
      } else if (key == "Dynamics") {
        const double d = static_cast<double>(number(value, 0, 127));
        note.Intensity = static_cast<int32_t>(std::floor((d + 20.0) * (d + 20.0) / 140.0 - 2.0));
      } else if (key == "LyricHandle") {
        strcpy_n(note.Lyric, value.c_str(), 32);
      }
    } else if (section == Section::kHandle && current >= 0 && key == "L0") {
      // "lyric","phoneme",...
      std::string lyric, phoneme;
      const size_t q1 = value.find('"');
      const size_t comma = value.find(',', q1 == std::string::npos ? 0 : q1);
      if (q1 != std::string::npos && comma != std::string::npos && comma > q1 + 1) lyric = value.substr(q1 + 1, comma - q1 - 2);
      const size_t q3 = comma == std::string::npos ? std::string::npos : value.find('"', comma);
      const size_t comma2 = q3 == std::string::npos ? std::string::npos : value.find(',', q3);
      if (q3 != std::string::npos && comma2 != std::string::npos && comma2 > q3 + 1) {
        phoneme = value.substr(q3 + 1, comma2 - q3 - 2);
      }
      char converted[32];
      if (utf8) {
        strcpy_utf8_n(converted, validUtf8(lyric).c_str(), sizeof converted);
      } else {
        const char* text8 = cm.sjisToUtf8(lyric.c_str());
        strcpy_utf8_n(converted, text8 != nullptr ? text8 : "", sizeof converted);
      }
      char fromPhoneme[32];
      strcpy_n(fromPhoneme, phoneme.c_str(), sizeof fromPhoneme);
      NoteData& note = engine.notes[current];
      if (usePhoneme_) {
        if (phonToLyric(fromPhoneme)) {
          strcpy_n(note.Lyric, fromPhoneme, sizeof note.Lyric);
        } else {
          transformLyric(converted);
          strcpy_n(note.Lyric, converted, sizeof note.Lyric);
        }
      } else if (converted[0] != '\0') {
        transformLyric(converted);
        strcpy_n(note.Lyric, converted, sizeof note.Lyric);
      } else if (phonToLyric(fromPhoneme)) {
        strcpy_n(note.Lyric, fromPhoneme, sizeof note.Lyric);
      }
    }
  }
  return inserted;
}

int32_t CMIDIMan::importVSQFile(const char* path, CNoteMan* man) {
  error_.clear();
  warnings_.clear();
  std::vector<Track> tracks;
  bool timeCode = false;
  if (path == nullptr || man == nullptr ||
      !parseFile(path, &format_, &division_, &tracks_, &timeCode, &tracks, &error_, maxEvents_)) {
    return -1;
  }
  // Each track's sequence text: its "DM:nnnn:" events joined in counter order.
  std::vector<std::string> texts;
  for (const Track& track : tracks) {
    std::map<long, std::string> pieces;
    for (const Event& event : track.events) {
      if (event.status == 0xFF && event.data1 == 0x01 && event.text.rfind("DM:", 0) == 0 && event.text.size() >= 8) {
        pieces[strtol(event.text.c_str() + 3, nullptr, 10)] += event.text.substr(8);
      }
    }
    std::string joined;
    for (const auto& piece : pieces) joined += piece.second;
    texts.push_back(joined);
  }
  // The pre-roll's measures follow the master track's time signatures.
  masterSignatures_.clear();
  for (const Event& event : tracks[0].events) {
    if (event.status == 0xFF && event.data1 == 0x58 && event.text.size() >= 2 && static_cast<uint8_t>(event.text[0]) > 0) {
      masterSignatures_.push_back({event.tick * 480 / division_, static_cast<uint8_t>(event.text[0]),
                                   1 << std::min<int32_t>(static_cast<uint8_t>(event.text[1]), 6)});
    }
  }
  // One shift for every track: the pre-roll of the first [Master], or less
  // where any track has events inside it.
  long long preMeasures = -1, earliest = 1LL << 30;
  for (const std::string& text : texts) scanSequence(text, &preMeasures, &earliest);
  shift_ = std::min<int64_t>(preRollTicks(std::max(preMeasures, 0LL)), earliest);
  int32_t layer = 0, notes = 0;
  for (const std::string& text : texts) {
    if (text.empty()) continue;
    if (layer >= ctonm2::kLayerCount) break;
    notes += importVSQText(layer++, text.c_str(), man);
  }
  if (layer == 0) {
    shift_ = -1;
    error_ = "no VSQ sequence in the file (no DM: text events)";
    return -1;
  }
  // The master track's tempos, after the pre-roll.
  ctonm2& engine = *man->engine();
  for (const Event& event : tracks[0].events) {
    if (event.status != 0xFF || event.data1 != 0x51 || bpmOf(event) == 0.0) continue;
    const float bpm = static_cast<float>(std::clamp(bpmOf(event), 10.0, 1000.0));
    const int64_t at = std::max<int64_t>(event.tick * 480 / division_ - shift_, 0);
    if (at == 0) {
      engine.tempo = bpm;
      continue;
    }
    NoteData rest = tempoRecord(bpm, 0);
    if (man->insertNotePosition(at, &rest) < 0) ctonm2::note_clear(&rest);
  }
  shift_ = -1;  // the shift was this file's
  masterSignatures_.clear();
  return notes;
}

bool CMIDIMan::writeVSQFile(const char* path, CNoteMan* man) {
  CMIDIWriter out;
  if (path == nullptr || man == nullptr || !out.open(path)) return false;
  ctonm2& engine = *man->engine();
  std::vector<int32_t> layers;
  for (int32_t layer = 0; layer < ctonm2::kLayerCount; ++layer) {
    for (int32_t i = 0; i < engine.noteCount; ++i) {
      if (engine.notes[i].layer == layer && !ctonm2::is_r(engine.notes[i].Lyric)) {
        layers.push_back(layer);
        break;
      }
    }
  }
  out.writeHeader(1, static_cast<int32_t>(layers.size()) + 1, 480);
  // The master track: name, 4/4, the song's tempo and its changes.
  const long lengthAt = beginTrack(out);
  out.writeDeltaTime(0);
  out.writeMetaText(0x03, "Master Track");
  out.writeDeltaTime(0);
  out.writeBytes("\xff\x58\x04\x04\x02\x18\x08", 7);
  writeTempoEvent(out, 0, engine.tempo);
  int64_t position = kPreRoll, last = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    position += engine.notes[i].Delta;
    if (engine.notes[i].Tempo <= 0.0f) continue;
    writeTempoEvent(out, static_cast<int32_t>(position - last), engine.notes[i].Tempo);
    last = position;
  }
  endTrack(out, lengthAt);
  for (size_t k = 0; k < layers.size(); ++k) {
    writeVSQTrack(out, man, layers[k], static_cast<int32_t>(k), static_cast<int32_t>(layers.size()));
  }
  return out.close();
}

int32_t CMIDIMan::defaultTrack(const std::vector<std::string>& trackList) {
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t k = 0; k < trackList.size(); ++k) {
      const bool notes = trackList[k].find(" (0 notes") == std::string::npos;
      if (notes && (pass == 1 || trackList[k].find(", lyrics)") != std::string::npos)) return static_cast<int32_t>(k);
    }
  }
  return 0;
}
