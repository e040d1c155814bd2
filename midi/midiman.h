// CMIDIMan: melodies between the note list and Standard MIDI files.
//
// Plain MIDI: import reads the notes of one track (and channel) with their
// lyrics, the tempo changes and the time signatures; export writes a
// conductor track with the tempos and one track of notes with their
// lyrics. VSQ sequences (MIDI files whose text events carry the sequence as
// an INI-style text, with phonemes) are read and written as well.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CNoteMan;
class CMIDIWriter;

// The phonemes of a Shift_JIS lyric from the kana/phoneme table; "a" when
// the lyric is not in it.
std::string lyricToPhon(const char* lyric);
// Replaces a phoneme text (room for 32 bytes) by its kana in UTF-8;
// 1 when found, else 0 and the text unchanged.
int32_t phonToLyric(char* text);
// A sequence text as the VSQ text events carry it: "DM:%04d:" and the next
// 119 bytes each, so that none is longer than 127 bytes.
std::vector<std::string> vsqTextEvents(const std::string& text);
// "a", "e", "i", "o", "u" or "n" become あ, え, い, お, う or ん (room for
// 32 bytes); 1 when changed.
int32_t transformLyric(char* lyric);

// The vowel a syllable ends on, as a kana ("か" -> "あ"), which a melisma
// mark ("-" or "+") sings on; "" when unknown.
std::string continuingVowel(const std::string& lyric);

class CMIDIMan {
 public:
  // What a song can hold: files past these are refused with a reason.
  static constexpr int32_t kMaxNotes = 1000000;
  static constexpr size_t kMaxEvents = 8000000;
  // Lower bounds than those, for a caller with its own (and for tests).
  void setLimits(int32_t notes, size_t events) {
    maxNotes_ = std::min(notes, kMaxNotes);
    maxEvents_ = std::min(events, kMaxEvents);
  }

  // How lyric and track-name texts are read: "" decides by the file's
  // bytes (valid UTF-8 with non-ASCII bytes: UTF-8, else Shift_JIS);
  // "utf-8" or "shift_jis" forces one.
  void setCharset(const std::string& charset) { charset_ = charset; }
  // Whether text events (type 1) are read as lyrics: kAuto where a track
  // has no lyric events and its texts sit on note starts (karaoke files),
  // and then only the texts on note starts; kYes every text; kNo none.
  enum class TextLyrics { kAuto, kYes, kNo };
  void setTextLyrics(TextLyrics mode) { textLyrics_ = mode; }

  // Reads the notes of `track` (format 0: its one track) on `channel` (-1:
  // every channel) into the manager's note list, on its current layer;
  // tempo changes join the list and the time signatures found go to
  // *timeSignatures in the time-signature text form. Returns the notes
  // made, or -1 with error() saying why (a wrong header, a track past the
  // file's end, a truncated event, format 2); nothing is kept then.
  int32_t importMIDIFile(const char* path, int32_t track, int32_t channel, CNoteMan* man,
                         std::string* timeSignatures);
  // Writes every sounding note as a format-1 file of 480 ticks per quarter:
  // a conductor track with the tempos, a track of notes with their lyrics
  // (UTF-8). False when the file cannot be written.
  bool writeSMFFile(const char* path, CNoteMan* man);

  // Each track as "Track%02d: NAME (N notes, lyrics)" and each channel of
  // a track as "ch%02d:(%d notes)"; empty with error() on a bad file.
  std::vector<std::string> getTrackList(const char* path);
  std::vector<std::string> getChannelList(const char* path, int32_t track);
  // The track an import takes when none is named: the first with notes and
  // lyrics, else the first with notes, else 0 (from getTrackList's lines).
  static int32_t defaultTrack(const std::vector<std::string>& trackList);

  // --- VSQ -----------------------------------------------------------------------
  // One voice track of a layer's notes: the sequence text in "DM:" text
  // events after 1920 ticks of pre-roll, then the controller tail.
  void writeVSQTrack(CMIDIWriter& out, CNoteMan* man, int32_t layer, int32_t trackIndex, int32_t trackCount);
  // Reads one track's sequence text into `layer` (-1: the manager's
  // current layer); returns the notes inserted.
  int32_t importVSQText(int32_t layer, const char* text, CNoteMan* man);
  // Every voice track of a VSQ file, each on a layer of its own (from 0);
  // returns the notes, -1 with error() on a bad file.
  int32_t importVSQFile(const char* path, CNoteMan* man);
  // A master track with the tempos, then one voice track per layer that
  // holds notes. False when the file cannot be written.
  bool writeVSQFile(const char* path, CNoteMan* man);
  // Read lyrics from the phonemes rather than the lyric texts.
  void setUsePhoneme(bool use) { usePhoneme_ = use; }

  const std::string& error() const { return error_; }
  // Lines worth a warning from the last import (absurd tempos clamped).
  const std::vector<std::string>& warnings() const { return warnings_; }
  int32_t format() const { return format_; }
  int32_t division() const { return division_; }
  int32_t trackCount() const { return tracks_; }

 private:
  bool usePhoneme_ = false;
  // The ticks a VSQ pre-roll of `measures` measures lasts.
  int64_t preRollTicks(long long measures) const;
  struct MasterSignature {
    int64_t tick;  // 480 per quarter
    int32_t beats, note;
  };
  std::vector<MasterSignature> masterSignatures_;  // a VSQ file's master track's
  int64_t shift_ = -1;  // ticks a VSQ song moves back by; -1: each text decides
  std::string charset_;
  TextLyrics textLyrics_ = TextLyrics::kAuto;
  int32_t maxNotes_ = kMaxNotes;
  size_t maxEvents_ = kMaxEvents;
  std::string error_;
  std::vector<std::string> warnings_;
  int32_t format_ = 0;
  int32_t division_ = 480;
  int32_t tracks_ = 0;
};
