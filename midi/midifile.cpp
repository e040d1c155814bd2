#include "midi/midifile.h"
#include "support/regular_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// What follows a status byte, for the reader and the writer alike. F1 and F3
// take two data bytes and F2 one, deliberately.
enum class Shape { kNone, kOneByte, kTwoBytes, kSysEx, kMeta };

Shape shapeOf(int status) {
  switch (status < 0xF0 ? status & 0xF0 : status) {
    case 0x80:
    case 0x90:
    case 0xA0:
    case 0xB0:
    case 0xE0:
    case 0xF1:
    case 0xF3:
      return Shape::kTwoBytes;
    case 0xC0:
    case 0xD0:
    case 0xF2:
      return Shape::kOneByte;
    case 0xF0:
    case 0xF7:
      return Shape::kSysEx;
    case 0xFF:
      return Shape::kMeta;
    default:  // 0xF4..0xFE: nothing follows
      return Shape::kNone;
  }
}

}  // namespace

uint32_t midiTag(const char (&tag)[5]) {
  uint32_t value;
  memcpy(&value, tag, 4);  // the bytes in file order, whatever the host
  return value;
}

MIDIMessage::~MIDIMessage() { free(data); }

void MIDIMessage::setTextData(const char* text) {
  free(data);
  data = nullptr;
  if (text == nullptr) return;
  const size_t n = strlen(text);
  data = static_cast<uint8_t*>(malloc(n + 1));
  if (data != nullptr) memcpy(data, text, n + 1);
}

// --- Reader --------------------------------------------------------------------

bool CMIDIReader::open(const char* path) {
  close();
  file_ = path != nullptr ? openRegularFile(path, "rb") : nullptr;
  measure();
  return file_ != nullptr;
}

void CMIDIReader::measure() {
  struct stat info;
  size_ = file_ != nullptr && fstat(fileno(file_), &info) == 0 ? static_cast<long>(info.st_size) : 0;
}

void CMIDIReader::close() {
  if (file_ != nullptr) fclose(file_);
  file_ = nullptr;
}

void CMIDIReader::init() {
  runningStatus_ = 0;
  timeCode_ = 0;
  file_ = nullptr;
}

int CMIDIReader::readByte() {
  const int byte = file_ != nullptr ? fgetc(file_) : -1;
  if (byte < 0) cutShort_ = true;
  return byte;
}

long CMIDIReader::remaining() {
  const long position = curPos();
  return position < 0 || position > size_ ? 0 : size_ - position;
}

int32_t CMIDIReader::readHeader() {
  if (readInt2() != static_cast<int32_t>(midiTag("MThd"))) return 0;
  readInt();  // the header's length: no extra bytes are skipped
  format_ = readShort();
  tracks_ = readShort();
  const int32_t division = readShort();
  if (division >= 32768) {
    // Time code: frames per second (negative, in the high byte) times ticks
    // per frame, halved: ticks per quarter at 120 beats per minute.
    division_ = (256 - (division >> 8)) * (division & 0xFF) / 2;
    timeCode_ = 1;
  } else {
    division_ = division;
    timeCode_ = 0;
  }
  return 1;
}

int32_t CMIDIReader::readDeltaTime() {
  uint32_t value = 0;
  for (int k = 0; k < 5; ++k) {  // 28 bits at most in a valid file; a fifth byte ends a runaway
    const int byte = readByte();
    if (byte < 0) return 0;
    value = (value << 7) | (static_cast<uint32_t>(byte) & 0x7F);
    if (byte < 0x80) break;
  }
  return static_cast<int32_t>(value & 0x7FFFFFFF);
}

int32_t CMIDIReader::readInt() {
  uint32_t value = 0;
  for (int k = 0; k < 4; ++k) {
    const int byte = readByte();
    value = (value << 8) | static_cast<uint32_t>(byte < 0 ? 0 : byte);
  }
  return static_cast<int32_t>(value);
}

int32_t CMIDIReader::readInt2() {
  uint8_t bytes[4] = {0, 0, 0, 0};
  for (uint8_t& b : bytes) {
    const int byte = readByte();
    b = static_cast<uint8_t>(byte < 0 ? 0 : byte);
  }
  uint32_t value;
  memcpy(&value, bytes, 4);
  return static_cast<int32_t>(value);
}

int32_t CMIDIReader::readShort() {
  const int high = readByte(), low = readByte();
  return ((high < 0 ? 0 : high) << 8) | (low < 0 ? 0 : low);
}

void CMIDIReader::moveTo(long offset) {
  if (file_ != nullptr) fseek(file_, offset, SEEK_SET);
}

long CMIDIReader::curPos() { return file_ != nullptr ? ftell(file_) : 0; }

int32_t CMIDIReader::readMessage(MIDIMessage* message) {
  cutShort_ = false;
  message->delta = readDeltaTime();
  const int first = readByte();
  int data1 = 0;
  if (first < 0) {  // past the end
    message->status = 0;
    return 0;
  }
  if (first >= 0x80) {
    runningStatus_ = first;
    if (first < 0xF0) data1 = readByte();
  } else {
    if (runningStatus_ >= 0xF0 || runningStatus_ == 0) {
      message->status = 0;
      return 0;
    }
    data1 = first;
  }
  const int status = runningStatus_;
  message->status = static_cast<uint8_t>(status);
  auto payload = [&](int32_t length) {
    // Never more than the file still holds.
    if (length > remaining()) {
      length = static_cast<int32_t>(remaining());
      cutShort_ = true;
    }
    if (length <= 0) {
      message->size = 0;
      return;
    }
    free(message->data);
    message->data = static_cast<uint8_t*>(malloc(static_cast<size_t>(length) + 1));
    if (message->data == nullptr) {
      message->size = 0;
      return;
    }
    const size_t got = fread(message->data, 1, static_cast<size_t>(length), file_);
    message->data[got] = '\0';
    message->size = static_cast<int32_t>(got);
  };
  // A channel message's first data byte is already read (it may have been
  // the byte that ended running status); the system ones read their own.
  auto leadByte = [&] { return static_cast<uint8_t>(std::max(status < 0xF0 ? data1 : readByte(), 0)); };
  switch (shapeOf(status)) {
    case Shape::kTwoBytes:
      message->data1 = leadByte();
      message->data2 = static_cast<uint8_t>(std::max(readByte(), 0));
      break;
    case Shape::kOneByte:
      message->data1 = leadByte();
      break;
    case Shape::kSysEx:
      payload(readDeltaTime());
      break;
    case Shape::kMeta:
      message->data1 = leadByte();
      payload(readDeltaTime());
      break;
    case Shape::kNone:
      break;
  }
  return status;
}

// --- Writer --------------------------------------------------------------------

bool CMIDIWriter::open(const char* path) {
  close();
  file_ = path != nullptr ? fopen(path, "wb") : nullptr;
  return file_ != nullptr;
}

bool CMIDIWriter::close() {
  if (file_ == nullptr) return true;
  const bool ok = ferror(file_) == 0;
  const bool closed = fclose(file_) == 0;
  file_ = nullptr;
  return ok && closed;
}

void CMIDIWriter::writeByte(int32_t value) {
  if (file_ != nullptr) fputc(value & 0xFF, file_);
}

void CMIDIWriter::writeBytes(const void* bytes, int32_t count) {
  if (file_ != nullptr && bytes != nullptr && count > 0) fwrite(bytes, 1, static_cast<size_t>(count), file_);
}

void CMIDIWriter::writeHeader(int32_t format, int32_t tracks, int32_t division) {
  writeUInt(midiTag("MThd"));
  writeLong(6);
  writeShort(format);
  writeShort(tracks);
  writeShort(division);
}

void CMIDIWriter::writeDeltaTime(int32_t value) {
  uint32_t v = static_cast<uint32_t>(value) & 0x0FFFFFFF;
  uint8_t groups[4];
  int n = 0;
  do {
    groups[n++] = static_cast<uint8_t>(v & 0x7F);
    v >>= 7;
  } while (v != 0 && n < 4);
  for (int k = n - 1; k >= 0; --k) writeByte(groups[k] | (k > 0 ? 0x80 : 0));
}

void CMIDIWriter::writeUInt(uint32_t value) { writeBytes(&value, 4); }

void CMIDIWriter::writeLong(int32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) writeByte(static_cast<int32_t>(static_cast<uint32_t>(value) >> shift));
}

void CMIDIWriter::writeShort(int32_t value) {
  writeByte(value >> 8);
  writeByte(value);
}

void CMIDIWriter::write3ByteNumber(int32_t value) {
  writeByte(value >> 16);
  writeByte(value >> 8);
  writeByte(value);
}

void CMIDIWriter::write2ByteNumberR(int32_t value) {
  if (value < 0) value = 0;
  writeByte(value & 0x7F);
  writeByte((value >> 7) & 0x7F);
}

void CMIDIWriter::writeMetaText(int32_t type, const char* text) {
  const int32_t n = text != nullptr ? static_cast<int32_t>(strlen(text)) : 0;
  writeByte(0xFF);
  writeByte(type);
  writeDeltaTime(n);
  writeBytes(text, n);
}

int32_t CMIDIWriter::writeMessage(const MIDIMessage* message) {
  writeDeltaTime(message->delta);
  const int status = message->status;
  writeByte(status);
  switch (shapeOf(status)) {
    case Shape::kTwoBytes:
      writeByte(message->data1);
      writeByte(message->data2);
      break;
    case Shape::kOneByte:
      writeByte(message->data1);
      break;
    case Shape::kSysEx:
      writeDeltaTime(message->size);
      writeBytes(message->data, message->size);
      break;
    case Shape::kMeta:
      writeByte(message->data1);
      writeDeltaTime(message->size);
      writeBytes(message->data, message->size);
      break;
    case Shape::kNone:
      break;
  }
  runningStatus_ = status;
  return status;
}

void CMIDIWriter::moveTo(long offset) {
  if (file_ != nullptr) fseek(file_, offset, SEEK_SET);
}

long CMIDIWriter::curPos() { return file_ != nullptr ? ftell(file_) : 0; }
