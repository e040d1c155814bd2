// Standard MIDI file bytes: one event record, a reader and a writer over
// an open file. They know the header chunk, variable-length quantities,
// running status on input and the layouts of channel, system and meta
// events; track chunks and the walk over a file belong to the callers.
//
// Reading never goes past the file: past its end every read gives zeros,
// and a payload length larger than what is left of the file is cut to it.
#pragma once

#include <cstdint>
#include <cstdio>

struct MIDIMessage {
  MIDIMessage() = default;
  ~MIDIMessage();
  MIDIMessage(const MIDIMessage&) = delete;
  MIDIMessage& operator=(const MIDIMessage&) = delete;
  // Replaces the payload with a copy of a text (size is the caller's).
  void setTextData(const char* text);

  int32_t delta = 0;     // ticks since the previous event of the track
  uint8_t status = 0;    // 0x80..0xFF; 0: a data byte with no usable running status
  uint8_t data1 = 0;     // for a meta event, its type
  uint8_t data2 = 0;
  uint8_t* data = nullptr;  // payload of a system-exclusive or meta event, NUL after it
  int32_t size = 0;         // payload bytes
};

class CMIDIReader {
 public:
  CMIDIReader() = default;
  explicit CMIDIReader(FILE* file) : file_(file) { measure(); }
  explicit CMIDIReader(const char* path) { open(path); }
  virtual ~CMIDIReader() { close(); }
  CMIDIReader(const CMIDIReader&) = delete;
  CMIDIReader& operator=(const CMIDIReader&) = delete;

  bool open(const char* path);
  void close();
  // Forgets the running status, the time-code flag and the file (not closed).
  void init();
  // "MThd", its length (not used), format, tracks and division; 1, or 0
  // for another tag. A division in time-code form becomes ticks per
  // quarter at 120 beats per minute and sets the time-code flag.
  int32_t readHeader();
  // One event; returns its status (0 for a data byte with no usable
  // running status).
  int32_t readMessage(MIDIMessage* message);
  int32_t readDeltaTime();
  int32_t readInt();     // 32-bit big-endian
  int32_t readInt2();    // 4 bytes in host order (chunk tags)
  int32_t readShort();   // 16-bit big-endian
  void moveTo(long offset);
  long curPos();
  // Bytes left in the file from the current position.
  long remaining();
  // Whether a read since the last readMessage began found the file's end
  // (or a payload longer than what was left): the event was cut short.
  bool cutShort() const { return cutShort_; }

  int32_t format() const { return format_; }
  int32_t division() const { return division_; }
  int32_t tracks() const { return tracks_; }
  bool timeCode() const { return timeCode_ != 0; }

 private:
  int readByte();  // -1 at the end
  void measure();

  int32_t runningStatus_ = 0;
  int32_t format_ = 0;
  int32_t division_ = 480;
  int32_t tracks_ = 0;
  int32_t timeCode_ = 0;
  FILE* file_ = nullptr;
  long size_ = 0;
  bool cutShort_ = false;
};

class CMIDIWriter {
 public:
  CMIDIWriter() = default;
  explicit CMIDIWriter(FILE* file) : file_(file) {}
  explicit CMIDIWriter(const char* path) { open(path); }
  ~CMIDIWriter() { close(); }
  CMIDIWriter(const CMIDIWriter&) = delete;
  CMIDIWriter& operator=(const CMIDIWriter&) = delete;

  bool open(const char* path);
  // Closes the file; false when something could not be written.
  bool close();
  void writeHeader(int32_t format, int32_t tracks, int32_t division);
  // Delta, status (always: no running status on output), then the bytes
  // of its kind. Returns the status.
  int32_t writeMessage(const MIDIMessage* message);
  // FF, type, length, text (no delta: the caller writes it first).
  void writeMetaText(int32_t type, const char* text);
  void writeDeltaTime(int32_t value);
  void writeUInt(uint32_t value);  // 4 bytes in host order (chunk tags)
  void writeLong(int32_t value);   // 32-bit big-endian
  void writeShort(int32_t value);  // 16-bit big-endian
  void write3ByteNumber(int32_t value);
  // Two 7-bit bytes, low first; a negative value writes 0 0.
  void write2ByteNumberR(int32_t value);
  void writeByte(int32_t value);
  void writeBytes(const void* bytes, int32_t count);
  void moveTo(long offset);
  long curPos();

 private:
  int32_t runningStatus_ = 0;
  FILE* file_ = nullptr;
};

// The chunk tags as readInt2 reads them and writeUInt writes them.
uint32_t midiTag(const char (&tag)[5]);
