// NoteData: one note of a project, a plain record copied by value, moved
// with block copies and cleared by zero-filling.
//
// The heap arrays (_pitch, Pitches, Exprs, PBS, PBW, PBY, PBM) belong to
// the record that holds them; copying a record by value hands them over.
// VoiceFile is borrowed from the voice set and never freed here.
//
// Count-first lists: PBS, PBW and PBY are float arrays whose element 0 holds
// the element count n as a float (elements 1..n are the values); PBM is a
// byte array whose byte 0 holds n (bytes 1..n one shape letter each).
#pragma once

#include <cstdint>

struct NoteData {
  char* VoiceFile;     // voice sample chosen for the note (voice set's entry)
  float* _pitch;       // rendered pitch curve, cents, one value per 256 samples
  int32_t _pitchlen;   // values in _pitch
  double _pos;         // msec, start of the note from the start of the song
  double _delta;       // msec, Delta at the tempo in effect
  float _preuttr;      // msec, pre-utterance in effect
  float _overlap;      // msec, overlap in effect
  float _notelen;      // msec, note length
  float _truelen;      // msec, length actually rendered
  float _stp;          // msec, start point in effect
  float stptrim;       // msec, start-point trim ("stptrim=")
  float _tempo;        // tempo in effect at the note
  int32_t Length;      // ticks
  int32_t Delta;       // ticks from the start of the previous note
  char Lyric[32];
  int16_t NoteNum;     // MIDI note number, 60 = middle C
  float PreUtterance;  // msec; NaN: the voice set's value applies
  float VoiceOverlap;  // msec; NaN: the voice set's value applies
  float Velocity;      // consonant velocity, percent (100 normal)
  float StartPoint;    // msec
  int32_t Intensity;   // percent
  int32_t Modulation;  // percent
  char Flags[32];      // resampler flags
  int32_t PitchCount;  // values in Pitches
  int16_t* Pitches;    // old-style pitch-bend list, cents
  int32_t ExprsCount;  // values in Exprs
  int16_t* Exprs;      // per pitch-grid point, the vibrato's effect on expression
  uint32_t reserved;   // carried by the serializer, zero otherwise
  float* PBS;          // mode-2 start: time (msec), [height (10 cents)]
  float* PBW;          // mode-2 segment widths, msec
  float* PBY;          // mode-2 point heights, 10 cents
  uint8_t* PBM;        // mode-2 segment shapes: 's', 'r', 'j', else S-type
  int16_t VBR[10];     // vibrato: length %, cycle ms, depth cents, fade-in %,
                       // fade-out %, phase %, height %, expression %, drift %
  float Envelope[16];  // p1 p2 p3 v1 v2 v3 v4 - p4 p5 v5 ext p6 v6 p7 v7
  float Tempo;         // tempo set at this note; 0: none
  uint32_t selected;   // editor selection, 0 or 1
  char Label[32];
  int32_t layer;       // 0: base layer
};

// The element count of a count-first float list: the integer part of
// element 0; a missing list or a count not above 0 is empty.
int32_t floatListCount(const float* list);
// The element count of a count-first byte list (0 when missing).
inline int32_t byteListCount(const uint8_t* list) { return list != nullptr ? list[0] : 0; }
