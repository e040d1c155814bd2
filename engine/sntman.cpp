#include "engine/sntman.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "engine/ctonm2.h"
#include "support/multibyte.h"
#include "support/textcopy.h"
#include "support/textfile.h"
#include "voicebank/connective.h"
#include "voicebank/voiceset.h"

namespace {

bool isUtf8Charset(const char* charset) {
  return strcmp(charset, "UTF-8") == 0 || strcmp(charset, "UTF8") == 0 || strcmp(charset, "utf-8") == 0 ||
         strcmp(charset, "utf8") == 0;
}

// Converts a Shift_JIS field to UTF-8 in place: what converts, cut to
// its capacity at a character boundary (a byte that is no Shift_JIS ends
// the text rather than stay raw among UTF-8 ones).
void fieldToUtf8(CMultiByte& cm, char* field, int capacity) {
  const char* converted = cm.sjisToUtf8(field);
  const std::string text = converted != nullptr ? converted : "";
  strcpy_utf8_n(field, text.c_str(), capacity);
}

// Paths written on Windows separate folders with "\".
std::string withSlashes(std::string path) {
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  return path;
}

// Lines of one output file, each closed by the form's line end.
class SntWriter {
 public:
  SntWriter(FILE* file, const char* lineEnd, bool shiftJis) : file_(file), end_(lineEnd), sjis_(shiftJis) {}
  void line(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    vfprintf(file_, format, args);
    va_end(args);
    fputs(end_, file_);
  }
  // A text in the output's charset.
  const char* text(const char* utf8) {
    if (!sjis_) return utf8;
    const char* converted = cm_.utf8ToSjis(utf8);
    return converted != nullptr ? converted : "";
  }
  FILE* file() const { return file_; }

 private:
  FILE* file_;
  const char* end_;
  bool sjis_;
  CMultiByte cm_;
};

// The pitch line (its lines end in a bare LF in both forms), the first
// `envelopeSlots` envelope values and the vibrato of a note.
void writeCurves(SntWriter& out, const NoteData* note, int envelopeSlots) {
  FILE* file = out.file();
  CSntMan::fprintFloat(file, "PBS=", note->PBS, ";");
  CSntMan::fprintFloat(file, "PBW=", note->PBW, ",");
  CSntMan::fprintFloat(file, "PBY=", note->PBY, ",");
  CSntMan::fprintChar(file, "PBM=", note->PBM, ",");
  fputs("Envelope=", file);
  for (int k = 0; k < envelopeSlots - 1; ++k) fprintf(file, "%0.1f,", note->Envelope[k]);
  out.line("%0.1f", note->Envelope[envelopeSlots - 1]);
  fputs("VBR=", file);
  for (int k = 0; k < 9; ++k) fprintf(file, "%d,", note->VBR[k]);
  out.line("%d", note->VBR[9]);
}

// Closes the file; 1 when everything reached it, else 0.
int32_t finish(FILE* file) {
  const bool failed = ferror(file) != 0;
  return (fclose(file) == 0 && !failed) ? 1 : 0;
}

}  // namespace

// --- CReplaceString ------------------------------------------------------------

const char* CReplaceString::replaceStr(const char* text, const char* from, const char* to) {
  if (text == nullptr || text[0] == '\0' || from == nullptr || from[0] == '\0') return text;
  const size_t fromLength = strlen(from);
  std::string result;
  const char* rest = text;
  for (const char* hit = strstr(rest, from); hit != nullptr; hit = strstr(rest, from)) {
    result.append(rest, static_cast<size_t>(hit - rest));
    if (to != nullptr) result += to;
    rest = hit + fromLength;
  }
  result += rest;
  result_ = result;
  return result_.c_str();
}

const char* CReplaceString::restoreHome(const char* text) {
  const char* home = getenv("HOME");
  return home != nullptr ? replaceStr(text, "${HOME}", home) : text;
}

const char* CReplaceString::replaceHome(const char* text) {
  const char* home = getenv("HOME");
  return home != nullptr ? replaceStr(text, home, "${HOME}") : text;
}

// --- Reading ---------------------------------------------------------------------

CSntMan::CSntMan(ctonm2* engine, const char* defaultPath)
    : engine_(engine), defaultPath_(defaultPath != nullptr ? defaultPath : "") {
  if (engine_ != nullptr) installConnectiveRules(engine_->voiceset);
}

void CSntMan::setDefaultPath(const char* path) { defaultPath_ = path != nullptr ? path : ""; }

void CSntMan::addHeader(const char* key, const char* value) {
  if (key == nullptr || key[0] == '\0' || value == nullptr || value[0] == '\0') return;
  header_ += key;
  header_ += "=";
  header_ += value;
  header_ += "\n";
}

int32_t CSntMan::readSnt2(const char* path, char* tsBuffer, int32_t tsSize) {
  header_.clear();
  if (tsBuffer != nullptr && tsSize > 0) tsBuffer[0] = '\0';
  const int32_t result = engine_->read_snt(path, tsBuffer, tsSize);
  if (tsBuffer != nullptr && tsSize > 0 && tsBuffer[0] != '\0') addHeader("TimeSignatures", tsBuffer);
  if (result < 1) return result;

  for (int i = 0; i < 23 && engine_->charset[i] != '\0'; ++i) {
    engine_->charset[i] = static_cast<char>(tolower(static_cast<unsigned char>(engine_->charset[i])));
  }
  // A project that names no charset is read by its bytes: valid UTF-8
  // with some non-ASCII text is UTF-8 (scripts write such files), anything
  // else Shift_JIS. A forced charset overrides both.
  if (!forcedCharset_.empty()) {
    engine_->set_charset(forcedCharset_.c_str());
  } else if (engine_->charset[0] == '\0' && fileLooksLikeUtf8(path)) {
    engine_->set_charset("utf-8");
  }
  const char* charset = engine_->charset;
  const bool shiftJis = charset[0] == '\0' || strcmp(charset, "shift_jis") == 0 ||
                        strcmp(charset, "shift-jis") == 0 || strcmp(charset, "sjis") == 0 ||
                        strcmp(charset, "cp932") == 0 || strcmp(charset, "windows-31j") == 0;
  std::string folder = engine_->voiceDir;
  CReplaceString replace;
  if (shiftJis) {
    CMultiByte cm;
    for (int32_t i = 0; i < engine_->noteCount; ++i) {
      NoteData& note = engine_->notes[i];
      if (ctonm2::is_r(note.Lyric)) continue;
      fieldToUtf8(cm, note.Lyric, sizeof note.Lyric);
      if (note.Label[0] != '\0') fieldToUtf8(cm, note.Label, sizeof note.Label);
    }
    fieldToUtf8(cm, engine_->projectName, ctonm2::kProjectNameSize);
    const char* outfile = cm.sjisToUtf8(engine_->outfile);
    strcpy_utf8_n(engine_->outfile, replace.restoreHome(withSlashes(outfile != nullptr ? outfile : "").c_str()),
                  ctonm2::kPathSize);
    const char* converted = cm.sjisToUtf8(folder.c_str());
    folder = converted != nullptr ? converted : "";
  } else {
    strcpy_n(engine_->outfile, withSlashes(engine_->outfile).c_str(), ctonm2::kPathSize);
  }
  folder = withSlashes(folder);
  // For a UTF-8 file the output file stays exactly as read.
  folder = std::string(replace.replaceStr(folder.c_str(), "${DEFAULT}", defaultPath_.c_str()));
  folder = std::string(replace.restoreHome(folder.c_str()));
  engine_->set_voiceDir(folder.c_str());
  return result;
}

int32_t CSntMan::readVoiceset(const char* folder) {
  if (engine_ == nullptr || engine_->voiceset == nullptr) return 0;
  const int32_t result = engine_->voiceset->read_voiceset(folder);
  convertVoicesetTexts(engine_->voiceset);
  return result;
}

// --- Writing ---------------------------------------------------------------------

void CSntMan::fprintFloat(FILE* stream, const char* key, const float* list, const char*) {
  if (stream == nullptr || list == nullptr) return;
  const int32_t n = floatListCount(list);
  fputs(key, stream);
  for (int32_t i = 1; i < n; ++i) fprintf(stream, "%0.1f,", list[i]);
  fprintf(stream, "%0.1f\n", list[n]);
}

void CSntMan::fprintChar(FILE* stream, const char* key, const uint8_t* list, const char*) {
  if (stream == nullptr || list == nullptr) return;
  const int32_t n = byteListCount(list);
  fputs(key, stream);
  for (int32_t i = 1; i < n; ++i) {
    if (list[i] != 0) fputc(list[i], stream);
    fputc(',', stream);
  }
  if (list[n] != 0) fputc(list[n], stream);
  fputc('\n', stream);
}

int32_t CSntMan::writeSnt2(const char* path) {
  FILE* file = fopen(path, "wt");
  if (file == nullptr) return 0;
  const bool utf8 = isUtf8Charset(engine_->charset);
  SntWriter out(file, "\n", !utf8);
  CReplaceString replace;
  std::string folder = replace.replaceStr(engine_->voiceDir, defaultPath_.c_str(), "${DEFAULT}");
  folder = std::string(replace.replaceHome(folder.c_str()));
  const std::string outfile = replace.replaceHome(engine_->outfile);

  out.line("[#VERSION]");
  out.line("SNT Version2.0");
  out.line("Charset=%s", utf8 ? "UTF-8" : "Shift_JIS");
  out.line("[#SETTING]");
  fputs(header_.c_str(), file);
  out.line("Tempo=%0.2f", engine_->tempo);
  out.line("ProjectName=%s", out.text(engine_->projectName));
  out.line("OutFile=%s", out.text(outfile.c_str()));
  out.line("VoiceDir=%s", out.text(folder.c_str()));
  out.line("Flags=%s", engine_->flags);
  out.line("Mode2=True");
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    const NoteData* note = engine_->get_note(i);
    if (note == nullptr) continue;
    const NoteData* next = engine_->get_note(i + 1);
    out.line("[#%04d]", i);
    out.line("Delta=%d", note->Delta);
    out.line("Duration=%u", static_cast<unsigned>(note->Length));
    if (next != nullptr) {
      out.line("Length=%d", next->Delta);
    } else {
      out.line("Length=%u", static_cast<unsigned>(note->Length));
    }
    out.line("Lyric=%s", out.text(note->Lyric));
    if (note->Label[0] != '\0') out.line("Label=%s", out.text(note->Label));
    if (note->Tempo != 0.0f) out.line("Tempo=%0.2f", note->Tempo);
    out.line("NoteNum=%d", note->NoteNum);
    if (ctonm2::is_r(note->Lyric)) continue;
    if (!std::isnan(note->PreUtterance)) out.line("PreUtterance=%0.2f", note->PreUtterance);
    if (!std::isnan(note->VoiceOverlap)) out.line("VoiceOverlap=%0.2f", note->VoiceOverlap);
    out.line("StartPoint=%0.2f", note->StartPoint);
    if (note->stptrim != 0.0f) out.line("stptrim=%0.4f", note->stptrim);
    out.line("Intensity=%u", static_cast<unsigned>(note->Intensity));
    out.line("Modulation=%d", note->Modulation);
    // Consonant velocity is set note by note: kept when it is not 100.
    if (note->Velocity != 100.0f) out.line("Velocity=%0.2f", note->Velocity);
    if (note->Flags[0] != '\0') out.line("Flags=%s", note->Flags);
    writeCurves(out, note, 16);
    if (note->layer > 0) out.line("layer=%d", note->layer);
  }
  out.line("[#TRACKEND]");
  return finish(file);
}

int32_t CSntMan::writeSnt1(const char* path) {
  FILE* file = fopen(path, "wt");
  if (file == nullptr) return 0;
  SntWriter out(file, "\r\n", true);
  CReplaceString replace;
  std::string folder = replace.replaceStr(engine_->voiceDir, defaultPath_.c_str(), "${DEFAULT}");
  folder = std::string(replace.replaceHome(folder.c_str()));
  folder = std::string(out.text(folder.c_str()));
  if (!folder.empty() && folder.back() == '/') folder.pop_back();
  const std::string outfile = replace.replaceHome(engine_->outfile);

  out.line("[#VERSION]");
  out.line("SNT Version1.2");
  out.line("[#SETTING]");
  out.line("Tempo=%0.2f", engine_->tempo);
  out.line("ProjectName=%s", out.text(engine_->projectName));
  out.line("OutFile=%s", out.text(outfile.c_str()));
  out.line("VoiceDir=%s", folder.c_str());
  out.line("Flags=%s", engine_->flags);
  out.line("Mode2=True");
  int32_t section = 0;
  // The 1.2 form holds a tempo change as "Tempo=" on a note: a change kept
  // on a rest record just before a note (as the reader leaves tempo
  // changes) goes onto that note, and one on any other rest stays on the
  // rest's own section, so that the song keeps its timing.
  float carriedTempo = 0.0f;
  for (int32_t i = 0; i < engine_->noteCount; ++i) {
    const NoteData* note = engine_->get_note(i);
    if (note == nullptr) continue;
    if (i == 0 && note->Delta > 0) {
      out.line("[#%04d]", section++);
      out.line("Length=%d", note->Delta);
      out.line("Lyric=R");
      out.line("NoteNum=60");
    }
    int32_t length = note->Length;
    int32_t gap = 0;
    if (const NoteData* next = engine_->get_note(i + 1)) {
      const int64_t space = static_cast<int64_t>(next->Delta) - length;  // damaged values may not fit an int
      if (space < 0) {
        length = next->Delta;  // an overlap is cut back to the next note's start
      } else {
        gap = static_cast<int32_t>(std::min<int64_t>(space, INT32_MAX));
      }
    }
    const std::string lyric = out.text(note->Lyric);
    out.line("[#%04d]", section);
    out.line("Length=%d", length);
    out.line("Lyric=%s", lyric.c_str());
    out.line("NoteNum=%d", note->NoteNum);
    if (!ctonm2::is_r(lyric.c_str())) {
      if (!std::isnan(note->PreUtterance)) out.line("PreUtterance=%0.2f", note->PreUtterance);
      if (!std::isnan(note->VoiceOverlap)) out.line("VoiceOverlap=%0.2f", note->VoiceOverlap);
      out.line("StartPoint=%0.2f", note->StartPoint);
      out.line("Intensity=%u", static_cast<unsigned>(note->Intensity));
      out.line("Modulation=%d", note->Modulation);
      if (note->Velocity != 100.0f) out.line("Velocity=%0.2f", note->Velocity);
      out.line("Flags=%s", note->Flags);
      const float tempo = note->Tempo != 0.0f ? note->Tempo : carriedTempo;
      if (tempo != 0.0f) out.line("Tempo=%0.2f", tempo);
      carriedTempo = 0.0f;
      writeCurves(out, note, 12);  // the 1.2 form keeps the first 12 envelope slots
    } else if (note->Tempo != 0.0f) {
      const NoteData* next = engine_->get_note(i + 1);
      if (next != nullptr && next->Delta == 0 && !ctonm2::is_r(next->Lyric) && next->Tempo == 0.0f) {
        carriedTempo = note->Tempo;
      } else {
        out.line("Tempo=%0.2f", note->Tempo);
      }
    }
    ++section;
    if (gap > 0) {
      out.line("[#%04d]", section++);
      out.line("Length=%d", gap);
      out.line("Lyric=R");
      out.line("NoteNum=60");
    }
    if (note->Pitches != nullptr && note->PitchCount > 0) {
      // Every value written is the list's element at the note's index in
      // the song (0 past the list's end): the old form's own quirk, kept.
      const int16_t value = i < note->PitchCount ? note->Pitches[i] : 0;
      fputs("PitchBend=", file);
      for (int32_t k = 0; k < note->PitchCount; ++k) fprintf(file, k > 0 ? ",%d" : "%d", value);
      fputc('\n', file);
    }
  }
  out.line("[#TRACKEND]");
  return finish(file);
}
