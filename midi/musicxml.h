// MusicXML: melodies from notation programs, and back.
//
// Import reads a score (".musicxml" or ".xml", or ".mxl": a zip container
// whose META-INF/container.xml names the score), partwise or timewise, and
// makes notes of one voice of one part: divisions, tempo marks (<sound
// tempo> and metronome marks), time signatures, rests, ties merged into
// one note, grace notes dropped, chords reduced to their top note, lyrics
// of one verse kept as text; a note under a lyric's extend line (a
// melisma) sings "-", which becomes the previous syllable's vowel as the
// MIDI import does. Export writes one part: the notes with their pitch,
// lengths split at bar lines (and into written values) with ties, time
// signatures, tempo marks and lyrics.
//
// Files are parsed with libxml2 (no network, no entity expansion) and
// zip containers read with libzip; scores over kMaxScoreBytes are refused.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class CNoteMan;

class CMusicXml {
 public:
  static constexpr int64_t kMaxScoreBytes = 64 << 20;
  static constexpr int32_t kMaxNotes = 1000000;  // as many as a MIDI file may bring

  struct Part {
    std::string id;
    std::string name;
    int32_t notes = 0;  // pitched notes, every voice, grace notes left out
    bool lyrics = false;
  };

  CMusicXml();
  ~CMusicXml();
  CMusicXml(const CMusicXml&) = delete;
  CMusicXml& operator=(const CMusicXml&) = delete;

  // Reads a score file, or a score held in memory (the XML text itself).
  // False with error() saying why (not XML, not a score, no part, too big,
  // a container without a score).
  bool load(const char* path);
  bool loadText(const char* text, size_t size);
  const std::vector<Part>& parts() const { return parts_; }
  // The part an import takes when none is named: the first with lyrics,
  // else the first with notes, else 0.
  int32_t defaultPart() const;

  // Makes the notes of `part` (from 0), voice `voice` (its number in the
  // score; 0: the first voice of the part) and lyrics of verse `verse`
  // (from 1) in the manager's note list, after what is there, on its
  // target layer. Tempo changes join the list; the time signatures go to
  // *timeSignatures in the time-signature text form. Returns the notes
  // made, or -1 with error() (no such part, no notes in it, absurd
  // divisions or lengths); nothing is kept then.
  int32_t importPart(int32_t part, int32_t voice, int32_t verse, CNoteMan* man, std::string* timeSignatures);

  // Writes the manager's sounding notes as a one-part score. False with
  // *error when the file cannot be written.
  static bool write(const char* path, CNoteMan* man, std::string* error);

  const std::string& error() const { return error_; }

 private:
  bool parse(const std::string& text);
  void listParts();

  void* doc_ = nullptr;  // xmlDoc
  std::vector<Part> parts_;
  std::string error_;
};
