#include "editing/noteman.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "editing/noteserial.h"
#include "editing/scaleman.h"
#include "engine/sntman.h"
#include "render/cache.h"
#include "support/multibyte.h"
#include "support/paths.h"
#include "support/textcopy.h"

namespace {

constexpr int32_t kTimeSignatureBufferSize = 1024;
constexpr uint32_t kQuietNaN = 0xFFC00000u;  // "not given": the voice set's value applies

typedef CMultiByte::wchar wchar;

// Small kana that join the character before them in a lyric flow-in: the
// small vowels, small tsu, small ya/yu/yo and small wa, hiragana and
// katakana.
bool isFlowSmallKana(wchar c) {
  static const wchar kTable[20] = {0x3041, 0x3043, 0x3045, 0x3047, 0x3049, 0x3063, 0x3083,
                                   0x3085, 0x3087, 0x308E, 0x30A1, 0x30A3, 0x30A5, 0x30A7,
                                   0x30A9, 0x30C3, 0x30E3, 0x30E5, 0x30E7, 0x30EE};
  return std::find(std::begin(kTable), std::end(kTable), c) != std::end(kTable);
}

// The same for taking one word from a file name: no small wa here.
bool isWordSmallKana(wchar c) {
  static const wchar kTable[18] = {0x3041, 0x3043, 0x3045, 0x3047, 0x3049, 0x3083, 0x3085, 0x3087, 0x3063,
                                   0x30A1, 0x30A3, 0x30A5, 0x30A7, 0x30A9, 0x30E3, 0x30E5, 0x30E7, 0x30C3};
  return std::find(std::begin(kTable), std::end(kTable), c) != std::end(kTable);
}

// Letters by the C locale's classification, whatever locale the process
// runs in (the editor's toolkit sets one).
bool isAlphabetic(wchar c) {
  static const locale_t cLocale = newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
  return cLocale != static_cast<locale_t>(nullptr) ? iswalpha_l(c, cLocale) != 0 : (c < 0x80 && isalpha(c));
}

// A UTF-8 text as UTF-16 units (empty when it cannot be converted).
std::vector<wchar> toWide(const char* text) {
  std::vector<wchar> wide;
  CMultiByte cm;
  const wchar* converted = cm.utf8ToWchar(text);
  if (converted == nullptr) return wide;
  for (const wchar* p = converted; *p != 0; ++p) wide.push_back(*p);
  return wide;
}

// units [begin, end) of a UTF-16 text, converted by `convert`.
template <typename Convert>
std::string fromWide(const std::vector<wchar>& wide, size_t begin, size_t end, Convert convert) {
  if (begin >= end) return std::string();
  std::vector<wchar> part(wide.begin() + static_cast<std::ptrdiff_t>(begin),
                          wide.begin() + static_cast<std::ptrdiff_t>(end));
  part.push_back(0);
  CMultiByte cm;
  const char* converted = convert(cm, part.data());
  return converted != nullptr ? converted : "";
}

std::string wideToUtf8(const std::vector<wchar>& wide, size_t begin, size_t end) {
  return fromWide(wide, begin, end, [](CMultiByte& cm, const wchar* text) { return cm.wcharToUtf8(text); });
}

std::string wideToSjis(const std::vector<wchar>& wide, size_t begin, size_t end) {
  return fromWide(wide, begin, end, [](CMultiByte& cm, const wchar* text) { return cm.wcharToSjis(text); });
}

// Resizes a count-first float list to `count` values; values past the old
// count are 0. False (list untouched) when memory runs out.
bool resizeFloatList(float** list, int32_t count) {
  const int32_t old = floatListCount(*list);
  float* grown = static_cast<float*>(realloc(*list, sizeof(float) * static_cast<size_t>(count + 1)));
  if (grown == nullptr) return false;
  for (int32_t k = old + 1; k <= count; ++k) grown[k] = 0.0f;
  grown[0] = static_cast<float>(count);
  *list = grown;
  return true;
}

bool resizeByteList(uint8_t** list, int32_t count) {
  const int32_t old = byteListCount(*list);
  uint8_t* grown = static_cast<uint8_t*>(realloc(*list, static_cast<size_t>(count + 1)));
  if (grown == nullptr) return false;
  for (int32_t k = old + 1; k <= count; ++k) grown[k] = 0;
  grown[0] = static_cast<uint8_t>(count);
  *list = grown;
  return true;
}

// Opens a gap at element k + 1 of a count-first list grown to `count`
// values: elements k+1 .. count-1 move up by one.
template <typename T>
void openGap(T* list, int32_t k, int32_t count) {
  for (int32_t m = count; m > k + 1; --m) list[m] = list[m - 1];
}

// Closes element k of a count-first list: the elements after it move down.
template <typename T>
void closeGap(T* list, int32_t k, int32_t count) {
  for (int32_t m = k; m < count; ++m) list[m] = list[m + 1];
}

}  // namespace

CScaleMan& applicationScale() {
  static CScaleMan scale;
  return scale;
}

const int16_t CNoteMan::kDefaultVibrato[10] = {70, 185, 40, 20, 20, 0, 0, 100, 0, 0};

CNoteMan::CNoteMan(CScaleMan* scale)
    : voiceset_(new cvoiceset), engine_(new ctonm2), scale_(scale != nullptr ? scale : &applicationScale()) {
  static_cast<void>(renderWords_);
  engine_->voiceset = voiceset_.get();
  engine_->set_flags("");
  engine_->set_outfile("");
  engine_->set_projectPath("");
  engine_->set_voiceDir("");
  engine_->set_projectName("(no title)");
}

CNoteMan::~CNoteMan() {
  free(snapshot_);
  engine_.reset();  // before the voice set it points into
}

// --- Project -------------------------------------------------------------------

int32_t CNoteMan::openSnt(const char* path, const char* defaultPath) {
  if (path == nullptr || path[0] == '\0') return -1;
  defaultPath_ = defaultPath != nullptr ? defaultPath : "";
  engine_->free_snt();
  CSntMan manager(engine_.get(), defaultPath);
  manager.setForcedCharset(forcedCharset_);
  scale_->resetScale();
  char timeSignatures[kTimeSignatureBufferSize] = "";
  const int32_t result = manager.readSnt2(path, timeSignatures, sizeof timeSignatures);
  if (result < 0) return -1;
  if (timeSignatures[0] != '\0') scale_->unserializeText(timeSignatures);
  // The audio track is kept relative to the project file: from here on it
  // is absolute.
  if (engine_->audioTrack != nullptr) {
    engine_->set_audioTrack(absoluteFrom(folderOf(path), engine_->audioTrack).c_str());
  }
  engine_->set_projectPath(path);
  anchor_ = -1;
  synchronizeNotes();
  return result;
}

int32_t CNoteMan::writeSnt(const char* path, const char* defaultPath) {
  CSntMan manager(engine_.get(), defaultPath);
  if (engine_->sntVersion < 200) return manager.writeSnt1(path);
  const int32_t size = scale_->serialize2text(nullptr, 0);
  if (size > 0) {
    std::vector<char> text(static_cast<size_t>(size));
    scale_->serialize2text(text.data(), size);
    if (text[0] != '\0') manager.addHeader("TimeSignatures", text.data());
  }
  if (engine_->audioTrack != nullptr) {
    manager.addHeader("BackingTrack", relativeTo(folderOf(path), engine_->audioTrack).c_str());
    char number[32];
    snprintf(number, sizeof number, "%.1f", engine_->audioTrackOffset);
    manager.addHeader("BackingTrackOffset", number);
    snprintf(number, sizeof number, "%d", static_cast<int>(engine_->audioTrackVolume));
    manager.addHeader("BackingTrackVolume", number);
    manager.addHeader("BackingTrackMute", engine_->audioTrackMute != 0 ? "1" : "0");
  }
  return manager.writeSnt2(path);
}

// --- Selection -----------------------------------------------------------------

bool CNoteMan::onTargetLayer(const NoteData& note) const {
  return engine_->currentLayer < 0 || note.layer == engine_->currentLayer;
}

void CNoteMan::addSelect(int32_t index, int32_t mode) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return;
  if (mode == 1 && anchor_ >= 0) {
    const int32_t low = std::min(index, anchor_), high = std::max(index, anchor_);
    for (int32_t i = 0; i < engine_->noteCount; ++i) engine_->notes[i].selected = i >= low && i <= high;
  } else if (mode == 2) {
    note->selected = note->selected != 0 ? 0 : 1;
  } else {
    ReleaseAll();
    note->selected = 1;
    anchor_ = index;
  }
}

int32_t CNoteMan::SelectAll() {
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    NoteData& note = engine_->notes[i];
    if (!ctonm2::is_r(note.Lyric) && onTargetLayer(note)) note.selected = 1;
  }
  return engine_->noteCount;
}

void CNoteMan::ReleaseAll() {
  for (int32_t i = 0; i < engine_->noteCount; ++i) engine_->notes[i].selected = 0;
}

bool CNoteMan::isSelected(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr && note->selected != 0;
}

int32_t CNoteMan::getSelectCount() {
  int32_t count = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) count += engine_->notes[i].selected != 0;
  return count;
}

int32_t CNoteMan::topOfSelection() {
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    if (engine_->notes[i].selected != 0) return i;
  }
  return -1;
}

int32_t CNoteMan::lastOfSelection() {
  for (int32_t i = engine_->noteCount - 1; i >= 0; --i) {
    if (engine_->notes[i].selected != 0) return i;
  }
  return -1;
}

int32_t CNoteMan::firstNote() {
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    if (!engine_->is_r(i) && onTargetLayer(engine_->notes[i])) return i;
  }
  return -1;
}

int32_t CNoteMan::lastNote() {
  for (int32_t i = engine_->noteCount - 1; i >= 0; --i) {
    if (!engine_->is_r(i) && onTargetLayer(engine_->notes[i])) return i;
  }
  return -1;
}

int32_t CNoteMan::prevNote(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return engine_->getprenote(index, note != nullptr ? note->layer : -1);
}

int32_t CNoteMan::nextNote(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return engine_->getnextnote(index, note != nullptr ? note->layer : -1);
}

NoteData* CNoteMan::getPreNote(int32_t index) { return engine_->get_note(prevNote(index)); }

NoteData* CNoteMan::getNextNote(int32_t index) { return engine_->get_note(nextNote(index)); }

// --- Reading and plain setting -------------------------------------------------

int64_t CNoteMan::getPosition(int32_t index) {
  const int32_t last = std::min(index, engine_->noteCount - 1);
  int64_t position = 0;
  for (int32_t i = 0; i <= last; ++i) position += engine_->notes[i].Delta;
  return position;
}

int64_t CNoteMan::getAllTicks() {
  if (engine_->noteCount == 0) return 0;
  return getPosition(engine_->noteCount - 1) + engine_->notes[engine_->noteCount - 1].Length;
}

int32_t CNoteMan::getDelta(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr ? note->Delta : 0;
}

int32_t CNoteMan::getLength(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr ? note->Length : 0;
}

float CNoteMan::getTempo(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr ? note->Tempo : 0.0f;
}

void CNoteMan::setTempo(int32_t index, float tempo) {
  if (NoteData* note = engine_->get_note(index)) note->Tempo = tempo;
}

void CNoteMan::setNote(int32_t index, const NoteData* record) {
  if (record != nullptr) engine_->set_note(index, record);
}

const char* CNoteMan::getLyric(int32_t index) {
  const char* lyric = engine_->get_lyric(index);
  return lyric != nullptr ? lyric : "";
}

void CNoteMan::setLyric(int32_t index, const char* text) { engine_->set_lyric(text, index); }

void CNoteMan::setIntensity(int32_t index, int32_t value) {
  if (NoteData* note = engine_->get_note(index)) note->Intensity = value;
}

void CNoteMan::setIntensityForSelected(int32_t value) {
  forSelected([&](int32_t i) { return engine_->notes[i].Intensity = value, 1; });
}

int32_t CNoteMan::getBlank(int32_t i, int32_t j) {
  const NoteData* note = engine_->get_note(i);
  if (note == nullptr) return 0;
  int64_t sum = 0;
  for (int32_t k = i + 1; k < j && k < engine_->noteCount; ++k) sum += engine_->notes[k].Delta;
  return static_cast<int32_t>(sum - note->Length);
}

float CNoteMan::getBlankMSec(int32_t i, int32_t j) { return Ticks2MSec(getBlank(i, j), j); }

// --- Inserting and deleting ----------------------------------------------------

int32_t CNoteMan::insertNotePosition(int64_t position, const NoteData* record) {
  if (record == nullptr) return -1;
  NoteData copy = *record;
  int64_t start = 0, previous = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    start += engine_->notes[i].Delta;
    if (start >= position) {
      const int64_t delta = position - previous;
      copy.Delta = static_cast<int32_t>(delta);
      engine_->notes[i].Delta -= static_cast<int32_t>(delta);
      const int32_t slot = engine_->insert_note(i, &copy);
      if (slot < 0) engine_->notes[i].Delta += static_cast<int32_t>(delta);  // list unchanged
      return slot;
    }
    previous = start;
  }
  copy.Delta = static_cast<int32_t>(position - previous);
  return engine_->insert_note(engine_->noteCount, &copy);
}

int32_t CNoteMan::insertNotePosition(int64_t position, int32_t length, int32_t noteNum, const char* lyric) {
  NoteData note;
  memset(&note, 0, sizeof note);
  note.Length = length;
  note.NoteNum = static_cast<int16_t>(noteNum);
  note.Intensity = 100;
  note.Velocity = 100.0f;
  memcpy(&note.PreUtterance, &kQuietNaN, sizeof kQuietNaN);
  memcpy(&note.VoiceOverlap, &kQuietNaN, sizeof kQuietNaN);
  strcpy_n(note.Lyric, lyric != nullptr ? lyric : "", sizeof note.Lyric);
  ctonm2::default_env(note.Envelope);
  defaultPitch(&note);
  note.layer = std::max(engine_->currentLayer, 0);
  const int32_t slot = insertNotePosition(position, &note);
  if (slot < 0) ctonm2::note_clear(&note);
  return slot;
}

int32_t CNoteMan::deleteNote(int32_t index) {
  if (engine_->get_note(index) == nullptr) return -1;
  if (NoteData* next = engine_->get_note(index + 1)) next->Delta += engine_->notes[index].Delta;
  if (anchor_ >= index) anchor_ = anchor_ == index ? -1 : anchor_ - 1;
  return engine_->delete_note(index);
}

int32_t CNoteMan::DeleteNotes() {
  int32_t count = 0;
  for (int32_t i = engine_->noteCount - 1; i >= 0; --i) {
    if (engine_->notes[i].selected != 0 && deleteNote(i) >= 0) ++count;
  }
  return count;
}

int32_t CNoteMan::CutNotes() {
  if (engine_->noteCount == 0) return 0;
  CopyNotes();
  return DeleteNotes();
}

uint8_t* CNoteMan::selectToSerial(int32_t* size) {
  size_t total = 4;
  int32_t count = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    if (engine_->notes[i].selected == 0) continue;
    total += static_cast<size_t>(CNoteSerial::serialLength(&engine_->notes[i]));
    ++count;
  }
  if (size != nullptr) *size = 4;
  if (count == 0 || total > INT32_MAX) return nullptr;
  uint8_t* buffer = static_cast<uint8_t*>(malloc(total));
  if (buffer == nullptr) return nullptr;
  uint8_t* p = CNoteSerial::bwrite(buffer, &count, sizeof count);
  int64_t start = 0, previousStart = -1;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    const NoteData& note = engine_->notes[i];
    start += note.Delta;
    if (note.selected == 0) continue;
    NoteData relative = note;
    relative.Delta = previousStart < 0 ? 0 : static_cast<int32_t>(start - previousStart);
    previousStart = start;
    p += CNoteSerial::serialize(&relative, p);
  }
  if (size != nullptr) *size = static_cast<int32_t>(total);
  return buffer;
}

int32_t CNoteMan::CopyNotes() {
  int32_t size = 0;
  uint8_t* buffer = selectToSerial(&size);
  if (buffer == nullptr) return 0;
  int32_t count = 0;
  memcpy(&count, buffer, sizeof count);
  CClipMan().ToClip(buffer, size);
  free(buffer);
  return count;
}

int32_t CNoteMan::PasteNotes(int64_t position) {
  ReleaseAll();
  CClipMan clip;
  const int32_t size = clip.FromClip(nullptr, 0);
  if (size < 4) return 0;
  std::vector<uint8_t> buffer(static_cast<size_t>(size));
  clip.FromClip(buffer.data(), size);
  int32_t count = 0;
  const uint8_t* p = CNoteSerial::bread(buffer.data(), &count, sizeof count);
  int64_t running = position;
  int32_t pasted = 0;
  for (int32_t k = 0; k < count; ++k) {
    NoteData note;
    memset(&note, 0, sizeof note);
    p += CNoteSerial::unserialize(p, &note);
    running += note.Delta;
    if (engine_->currentLayer >= 0) note.layer = engine_->currentLayer;
    note.selected = 1;
    if (insertNotePosition(running, &note) < 0) {
      ctonm2::note_clear(&note);
      break;
    }
    ++pasted;
  }
  return pasted;
}

// --- Dragging ------------------------------------------------------------------

int32_t CNoteMan::synchronizeNotes() {
  const int32_t count = engine_->noteCount;
  Snapshot* grown = static_cast<Snapshot*>(realloc(snapshot_, sizeof(Snapshot) * static_cast<size_t>(std::max(count, 1))));
  if (grown == nullptr) return -1;
  snapshot_ = grown;
  snapshotCount_ = count;
  for (int32_t i = 0; i < count; ++i) {
    const NoteData& note = engine_->notes[i];
    snapshot_[i] = {note.Delta, note.NoteNum, note.Length};
  }
  return 0;
}

CNoteMan::Snapshot* CNoteMan::snapshot() {
  // A structural change without a new snapshot: start from the live notes
  // rather than read past the snapshot.
  if (snapshot_ == nullptr || snapshotCount_ != engine_->noteCount) {
    if (synchronizeNotes() < 0) return nullptr;
  }
  return snapshot_;
}

int32_t CNoteMan::moveSelectedNotes(int32_t dTicks, int32_t dNote, int32_t step) {
  const Snapshot* snap = snapshot();
  if (snap == nullptr) return 0;
  if (step < 1) step = 1;
  int64_t shift = dTicks;
  int64_t P = 0, Q = 0;
  bool previousSelected = false;
  int32_t count = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    NoteData& note = engine_->notes[i];
    P += snap[i].delta;
    if (note.selected != 0) {
      int64_t target = P + shift;
      if (target < 0) {
        shift = -P;
        target = 0;
      }
      // The remainder is added, not subtracted: a target on the grid stays,
      // any other is pushed by its remainder.
      const int64_t r = target % step;
      const int64_t start = r <= step / 2 ? target + r : target + r - step;
      note.Delta = static_cast<int32_t>(start - Q);
      ++count;
      Q = start;
      const int32_t number = snap[i].noteNum + dNote;
      if (number != note.NoteNum && number >= kMinDragNote && number <= kMaxDragNote) {
        note.NoteNum = static_cast<int16_t>(number);
        ++count;
      }
      previousSelected = true;
    } else {
      if (previousSelected) {
        note.Delta = static_cast<int32_t>(P - Q);
        ++count;
      }
      Q = P;
      previousSelected = false;
    }
  }
  return count;
}

int32_t CNoteMan::moveQuontizeNote(int32_t index, int32_t dTicks, int32_t dNote, int32_t step) {
  NoteData* note = engine_->get_note(index);
  const Snapshot* snap = snapshot();
  if (note == nullptr || snap == nullptr) return 0;
  if (step < 1) step = 1;
  int64_t B = 0;
  for (int32_t i = 0; i < index; ++i) B += engine_->notes[i].Delta;
  int64_t D = static_cast<int64_t>(snap[index].delta) + dTicks;
  if (B + D < 0) D = -B;
  const int64_t r = std::max<int64_t>(B + D, 0) % step;
  const int64_t delta = D - r + (r > step / 2 ? step : 0);
  int32_t count = 0;
  if (delta != note->Delta) {
    if (NoteData* next = engine_->get_note(index + 1)) {
      next->Delta = static_cast<int32_t>(snap[index + 1].delta + snap[index].delta - delta);
    }
    note->Delta = static_cast<int32_t>(delta);
    ++count;
  }
  const int32_t number = snap[index].noteNum + dNote;
  if (number != note->NoteNum && number >= kMinDragNote && number <= kMaxDragNote) {
    note->NoteNum = static_cast<int16_t>(number);
    ++count;
  }
  return count;
}

int32_t CNoteMan::sizeQuontizeNote(int32_t index, int32_t dTicks, int32_t step) {
  NoteData* note = engine_->get_note(index);
  const Snapshot* snap = snapshot();
  if (note == nullptr || snap == nullptr) return 0;
  if (step < 1) step = 1;
  const int64_t length = (static_cast<int64_t>(snap[index].length) + dTicks + step / 2) / step * step;
  if (length == note->Length || length < kMinLength || length > kMaxLength) return 0;
  note->Length = static_cast<int32_t>(length);
  return 1;
}

int32_t CNoteMan::sizeSelectedNotes(int32_t dTicks, int32_t step) {
  return forSelected([&](int32_t i) { return sizeQuontizeNote(i, dTicks, step); });
}

int32_t CNoteMan::quontizeSelectedNotes(int32_t step) {
  if (step < 1) step = 1;
  int64_t start = 0;
  int32_t count = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    NoteData& note = engine_->notes[i];
    start += note.Delta;
    if (note.selected == 0) continue;
    const int64_t snapped = (start + step / 2) / step * step;
    if (snapped == start) continue;
    const int32_t change = static_cast<int32_t>(snapped - start);
    note.Delta += change;
    if (NoteData* next = engine_->get_note(i + 1)) next->Delta -= change;
    start = snapped;
    ++count;
  }
  return count;
}

void CNoteMan::swapDown(int32_t k) {
  NoteData* notes = engine_->notes;
  const int32_t d = notes[k].Delta, dp = notes[k - 1].Delta;
  std::swap(notes[k - 1], notes[k]);
  notes[k - 1].Delta = d + dp;
  notes[k].Delta = -d;
  if (k + 1 < engine_->noteCount) notes[k + 1].Delta += d;
}

int32_t CNoteMan::normalizeNotes(int32_t index) {
  if (index < 0 || index > engine_->noteCount) return -1;
  int32_t k = index;
  while (k < engine_->noteCount && engine_->notes[k].Delta < 0) {
    if (k == 0) {
      engine_->notes[0].Delta = 0;
      break;
    }
    swapDown(k);
    --k;
  }
  int32_t result = k;
  for (int32_t j = index + 1; j < engine_->noteCount && engine_->notes[j].Delta < 0; ++j) {
    swapDown(j);
    result = j;
  }
  return result;
}

int32_t CNoteMan::addNoteNum(int32_t dNote, int32_t index) {
  auto transpose = [&](int32_t i) {
    NoteData& note = engine_->notes[i];
    note.NoteNum = static_cast<int16_t>(std::clamp<int32_t>(note.NoteNum + dNote, kMinNote, kMaxNote));
    return 1;
  };
  if (index < 0) return forSelected(transpose);
  return engine_->get_note(index) != nullptr ? transpose(index) : 0;
}

template <typename Op>
int32_t CNoteMan::forSelected(Op op) {
  int32_t count = 0;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    if (engine_->notes[i].selected != 0) count += op(i);
  }
  return count;
}

// --- Lyrics --------------------------------------------------------------------

int32_t CNoteMan::assignLyric(char* text, size_t capacity, bool selectedOnly, bool dryRun, int32_t* assigned) {
  if (assigned != nullptr) *assigned = 0;
  if (text == nullptr || capacity == 0) return 0;
  const std::vector<wchar> wide = toWide(text);
  const size_t length = wide.size();
  const int32_t first = topOfSelection();
  int32_t lastWritten = -1, given = 0;
  size_t pos = 0;
  for (int32_t i = std::max(first, 0); first >= 0 && i < engine_->noteCount && pos < length; ++i) {
    NoteData& note = engine_->notes[i];
    if (ctonm2::is_r(note.Lyric) || !onTargetLayer(note)) continue;
    // A space only separates: it is stepped over and takes no note.
    if (wide[pos] == 0x3000 || wide[pos] == 0x0020) {
      if (++pos >= length) break;
    }
    if (selectedOnly && note.selected == 0) continue;
    size_t end = pos + 1;
    while (end < length && end < pos + 3 && isFlowSmallKana(wide[end])) ++end;
    if (!dryRun) strcpy_utf8_n(note.Lyric, wideToUtf8(wide, pos, end).c_str(), sizeof note.Lyric);
    pos = end;
    lastWritten = i;
    ++given;
  }
  if (!dryRun) {
    const std::string left = first >= 0 ? wideToSjis(wide, pos, length) : wideToSjis(wide, 0, length);
    strcpy_n(text, left.c_str(), static_cast<int>(std::min<size_t>(capacity, INT32_MAX)));
  }
  if (!selectedOnly) {
    // From the first selected note to the last one given a word; with no
    // selection at all, note 0 alone ends up selected.
    const int32_t low = std::max(first, 0);
    const int32_t high = first < 0 ? 0 : lastWritten >= 0 ? lastWritten : first;
    for (int32_t i = 0; i < engine_->noteCount; ++i) engine_->notes[i].selected = i >= low && i <= high;
  }
  if (assigned != nullptr) *assigned = given;
  return 0;
}

char* CNoteMan::getOneWord(const char* text, char* out, int32_t maxLength, int32_t mode) {
  if (out == nullptr || maxLength < 1) return out;
  const std::vector<wchar> wide = toWide(text != nullptr ? text : "");
  const size_t length = wide.size();
  size_t start = 0;
  for (wchar separator : {wchar('/'), wchar('\\'), wchar(' ')}) {
    for (size_t i = start; i < length; ++i) {
      if (wide[i] == separator) start = i + 1;
    }
  }
  size_t end = length;
  if (mode != 2 && start < length) {
    end = start + 1;
    if (isAlphabetic(wide[start])) {
      while (end < length && isAlphabetic(wide[end])) ++end;
    } else {
      if (end < length && (wide[end] == 0x309B || wide[end] == 0x309C)) ++end;
      if (end < length && isWordSmallKana(wide[end])) ++end;
    }
  }
  const size_t begin = mode == 1 ? 0 : start;
  strcpy_utf8_n(out, wideToUtf8(wide, begin, end).c_str(), maxLength);
  return out;
}

int32_t CNoteMan::searchNote(const char* text, int32_t from, bool backward) {
  if (text == nullptr) return -1;
  auto matches = [&](int32_t i) {
    const NoteData& note = engine_->notes[i];
    return onTargetLayer(note) && strstr(note.Lyric, text) != nullptr;
  };
  if (backward) {
    for (int32_t i = std::min(from, engine_->noteCount - 1) - 1; i >= 0; --i) {
      if (matches(i)) return i;
    }
  } else {
    for (int32_t i = from < 0 ? 0 : from + 1; i < engine_->noteCount; ++i) {
      if (matches(i)) return i;
    }
  }
  return -1;
}

// --- Envelope ------------------------------------------------------------------

int32_t CNoteMan::defaultEnvelope(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  ctonm2::default_env(note->Envelope);
  return 1;
}

int32_t CNoteMan::correctEnvelope(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  ctonm2::correctEnvelope(note->Envelope, static_cast<double>(note->_preuttr) + note->_truelen);
  return 1;
}

int32_t CNoteMan::equalSpaceEnv(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  ctonm2::equalSpaceEnv(note->Envelope, static_cast<double>(note->_preuttr) + note->_truelen);
  return 1;
}

int32_t CNoteMan::switchEnvelope(int32_t index, bool on) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  float* env = note->Envelope;
  if (on) {
    env[11] = 1.0f;
    if (env[13] == 0.0f) env[13] = env[4];
    if (env[15] == 0.0f) env[15] = env[4];
  } else {
    env[11] = 0.0f;
  }
  return 1;
}

int32_t CNoteMan::defaultEnvForSelected() {
  return forSelected([&](int32_t i) { return defaultEnvelope(i); });
}

int32_t CNoteMan::correctEnvForSelected() {
  return forSelected([&](int32_t i) { return correctEnvelope(i); });
}

int32_t CNoteMan::equalSpaceEnvForSelected() {
  return forSelected([&](int32_t i) { return equalSpaceEnv(i); });
}

int32_t CNoteMan::switchEnvForSelected(bool on) {
  return forSelected([&](int32_t i) { return switchEnvelope(i, on); });
}

// --- Vibrato -------------------------------------------------------------------

int32_t CNoteMan::defaultVibrato(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  memcpy(note->VBR, kDefaultVibrato, sizeof note->VBR);
  return 1;
}

int32_t CNoteMan::clearVibrato(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  memset(note->VBR, 0, sizeof note->VBR);
  return 1;
}

bool CNoteMan::isEnableVibrato(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr && note->VBR[0] != 0;
}

int32_t CNoteMan::defaultVibratoToSelected() {
  return forSelected([&](int32_t i) { return isEnableVibrato(i) ? 0 : defaultVibrato(i); });
}

int32_t CNoteMan::clearVibratoToSelected() {
  return forSelected([&](int32_t i) { return clearVibrato(i); });
}

// --- Pitch line ----------------------------------------------------------------

bool CNoteMan::isEnablePitch(int32_t index) {
  const NoteData* note = engine_->get_note(index);
  return note != nullptr && note->PBW != nullptr;
}

void CNoteMan::defaultPitch(NoteData* note) {
  if (note == nullptr) return;
  free(note->PBW);
  free(note->PBS);
  note->PBS = static_cast<float*>(malloc(2 * sizeof(float)));
  note->PBW = static_cast<float*>(malloc(2 * sizeof(float)));
  if (note->PBS != nullptr) note->PBS[0] = 1.0f, note->PBS[1] = -40.0f;
  if (note->PBW != nullptr) note->PBW[0] = 1.0f, note->PBW[1] = 80.0f;
}

int32_t CNoteMan::defaultPitch(int32_t index) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  defaultPitch(note);
  return 1;
}

int32_t CNoteMan::getPitchKind(int32_t index, int32_t k) {
  const NoteData* note = engine_->get_note(index);
  if (note == nullptr || note->PBM == nullptr || k < 1 || k > byteListCount(note->PBM)) return -1;
  return note->PBM[k];
}

int32_t CNoteMan::setPitchKind(int32_t index, int32_t k, int32_t code) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr) return 0;
  if (k < 1) return byteListCount(note->PBM);
  if (k > 255) return 0;
  if (byteListCount(note->PBM) < k && !resizeByteList(&note->PBM, k)) return 0;
  note->PBM[k] = static_cast<uint8_t>(code);
  return code;
}

int32_t CNoteMan::addPitchPoint(int32_t index, int32_t k) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr || note->PBW == nullptr) return 0;
  const int32_t n = floatListCount(note->PBW);
  if (k < 0 || k > n || n >= 255) return 0;
  float y = 0.0f;
  if (k > 0) {
    if (k <= floatListCount(note->PBY)) y = note->PBY[k];
  } else {
    const NoteData* previous = engine_->get_note(index - 1);
    if (previous == nullptr || ctonm2::is_r(previous->Lyric)) {
      if (floatListCount(note->PBS) == 2) y = note->PBS[2];
    } else {
      y = static_cast<float>((previous->NoteNum - note->NoteNum) * 10);
    }
  }
  // Grow the three lists first; a failure stops here with counts that
  // match their sizes.
  if (!resizeFloatList(&note->PBW, n + 1)) return 0;
  if (!resizeFloatList(&note->PBY, n)) return 0;
  if (!resizeByteList(&note->PBM, n + 1)) return 0;
  openGap(note->PBW, k, n + 1);
  openGap(note->PBY, k, n);
  openGap(note->PBM, k, n + 1);
  if (k >= n) {
    note->PBY[k] = 0.0f;
    note->PBW[k + 1] = 0.0f;
    note->PBM[k + 1] = 0;
    return 1;
  }
  // The new point halves the following segment.
  const float width = note->PBW[k + 2] / 2.0f;
  note->PBW[k + 1] = width;
  note->PBW[k + 2] = width;
  note->PBY[k + 1] = k >= n - 1 ? y / 2.0f : (y + note->PBY[k + 2]) / 2.0f;
  note->PBM[k + 1] = note->PBM[k + 2];
  return 1;
}

int32_t CNoteMan::delPitchPoint(int32_t index, int32_t k) {
  NoteData* note = engine_->get_note(index);
  if (note == nullptr || note->PBW == nullptr) return 0;
  const int32_t n = floatListCount(note->PBW);
  if (n < 2 || k < 0 || k > n) return 0;
  int32_t at = k;
  if (k == 0) {
    // The line now starts where its first point was.
    if (floatListCount(note->PBS) < 2 && !resizeFloatList(&note->PBS, 2)) return 0;
    note->PBS[2] = floatListCount(note->PBY) >= 1 ? note->PBY[1] : 0.0f;
    note->PBS[1] += note->PBW[1];
    at = 1;
  } else if (k < n) {
    note->PBW[k + 1] += note->PBW[k];
  }
  const int32_t ny = floatListCount(note->PBY), nm = byteListCount(note->PBM);
  closeGap(note->PBW, at, n);
  note->PBW[0] = static_cast<float>(n - 1);
  if (at <= ny) closeGap(note->PBY, at, ny);
  if (ny > 0) note->PBY[0] = static_cast<float>(ny - 1);
  if (at <= nm) closeGap(note->PBM, at, nm);
  if (nm > 0) note->PBM[0] = static_cast<uint8_t>(nm - 1);
  return 1;
}

int32_t CNoteMan::stretchPitchLen(int32_t index) {
  NoteData* note = engine_->get_note(index);
  const Snapshot* snap = snapshot();
  if (note == nullptr || snap == nullptr || snap[index].length <= 0 || floatListCount(note->PBS) < 1) return 0;
  const float ratio = static_cast<float>(note->Length) / static_cast<float>(snap[index].length);
  float p = note->PBS[1];
  if (note->PBS[1] > 0.0f) note->PBS[1] *= ratio;
  const int32_t n = floatListCount(note->PBW);
  for (int32_t m = 1; m <= n; ++m) {
    const float e = p + note->PBW[m];
    if (e > 0.0f) note->PBW[m] = p < 0.0f ? ratio * e - p : note->PBW[m] * ratio;
    p = e;
  }
  return 1;
}

// --- Time ----------------------------------------------------------------------

float CNoteMan::Ticks2MSec(int64_t ticks) {
  return engine_->ticks2msec(static_cast<int32_t>(std::clamp<int64_t>(ticks, INT32_MIN, INT32_MAX)));
}

int32_t CNoteMan::MSec2Ticks(double msec) { return engine_->msec2ticks(msec); }

float CNoteMan::Ticks2MSec(int64_t ticks, int32_t base) {
  return engine_->ticks2msec(static_cast<int32_t>(std::clamp<int64_t>(ticks, INT32_MIN, INT32_MAX)), base);
}

int32_t CNoteMan::MSec2Ticks(double msec, int32_t base) {
  // One tempo throughout, the one in force at note base.
  const double ticksPerMsec = engine_->get_tempo(base) * 480 / 60000.0;
  const double ticks = std::trunc(msec * ticksPerMsec);
  return static_cast<int32_t>(std::clamp<double>(ticks, INT32_MIN, INT32_MAX));
}

// --- Voice set -----------------------------------------------------------------

void CNoteMan::releaseVoice() {
  for (int32_t i = 0; i < engine_->noteCount; ++i) engine_->notes[i].VoiceFile = nullptr;
}

int32_t CNoteMan::readVoiceset() {
  releaseVoice();
  CSntMan manager(engine_.get(), defaultPath_.c_str());
  return manager.readVoiceset(engine_->voiceDir);
}

int32_t CNoteMan::wrtiePrefixMap() {
  cvoiceset* voices = engine_->voiceset;
  if (voices == nullptr) return 0;
  std::string base = engine_->voiceDir;
  if (base.size() > 1000) base.resize(1000);  // paths stay within 1024 bytes
  const int32_t utf8 = voices->write_prefixmap((base + "prefixmap").c_str(), "UTF-8");
  PrefixMapEntry backup[cvoiceset::kPrefixRows];
  memcpy(backup, voices->prefixMap, sizeof backup);
  CMultiByte cm;
  for (PrefixMapEntry& row : voices->prefixMap) {
    strcpy_n(row.prefix, cm.utf8ToSjis(row.prefix), sizeof row.prefix);
    strcpy_n(row.suffix, cm.utf8ToSjis(row.suffix), sizeof row.suffix);
  }
  const int32_t sjis = voices->write_prefixmap((base + "prefix.map").c_str(), nullptr);
  // The backup is taken again rather than put back: the map keeps its
  // Shift_JIS texts, which the editor then shows converted.
  memcpy(backup, voices->prefixMap, sizeof backup);
  return utf8 != 0 && sjis != 0 ? 1 : 0;
}

// --- Playback ------------------------------------------------------------------

namespace {

double* cacheGet(int32_t index, const NoteData* note, int32_t* bytes) { return CCacheSys::getCache(index, note, bytes); }

void cachePut(int32_t index, const NoteData* note, const double* data, int32_t bytes) {
  CCacheSys::putCache(index, note, data, bytes);
}

}  // namespace

int32_t CNoteMan::playStart(int64_t fromTick, int64_t toTick, ctonm2::Progress progress, PlayTrigger playTrigger,
                            RenderPosition setRenderPos, const char* dumpPath, std::string* message) {
  ctonm2& engine = *engine_;
  auto fail = [&](const char* text, int32_t result) {
    if (message != nullptr) *message = text;
    return result;
  };
  if (engine.noteCount == 0) return fail("音符がありません", -1);
  if (engine.voiceDir[0] == '\0') return fail("原音パスを設定してください", -1);
  if (engine.voiceset != nullptr && engine.voiceset->count() == 0) return fail("原音が選択されていません", -1);
  const int32_t prepared = engine.preparationNotes();
  if (prepared == 0) return fail("レンダリングできる音符がありません", 0);
  if (prepared < 0) return fail("原音エントリーがありません(2)", -1);
  engine.makePitchMode2();

  // The first note: the first on the target layer still sounding at fromTick.
  int32_t first = -1;
  int64_t start = 0, into = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    start += note.Delta;
    const int64_t length = ctonm2::is_r(note.Lyric) ? 0 : note.Length;
    if (onTargetLayer(note) && start + length > fromTick) {
      first = i;
      into = fromTick - start;
      break;
    }
  }
  if (first < 0) first = 0, into = 0;
  // From the first note's start; less than 0 in the silence before it.
  const double startMs = Ticks2MSec(into, first);
  // The last note: the one before the first later note (on the target
  // layer) that starts past toTick.
  int32_t last = engine.noteCount - 1;
  if (fromTick < toTick) {
    int64_t position = getPosition(first);
    for (int32_t i = first + 1; i < engine.noteCount; ++i) {
      position += engine.notes[i].Delta;
      if (onTargetLayer(engine.notes[i]) && position > toTick) {
        last = std::max(first, i - 1);
        break;
      }
    }
  }
  const double endMs = Ticks2MSec(fromTick < toTick ? toTick : getAllTicks());
  if (dumpPath != nullptr && dumpPath[0] != '\0') {
    if (FILE* dump = fopen(dumpPath, "w")) {
      for (int32_t i = first; i <= last; ++i) ctonm2::printNoteData(dump, &engine.notes[i]);
      fclose(dump);
    }
  }
  engine.playTrigger = playTrigger;
  engine.renderPosition = setRenderPos;
  engine.cacheGet = cacheGet;
  engine.cachePut = cachePut;
  return engine.render_number_with_progress_thread(first, last, nullptr, progress, startMs, endMs);
}
