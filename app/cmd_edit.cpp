// tona edit PROJECT -o OUT [--layer N] [--form 1.2|2.0] OPERATION...
//
// Applies editing operations to a project in the order given, each as the
// editor applies it, and saves the result. Nothing is written unless every
// operation ran.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/args.h"
#include "app/command.h"
#include "app/project_file.h"
#include "app/subcommands.h"
#include "app/voice_bank.h"
#include "editing/ccnoteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "support/multibyte.h"
#include "support/safe_output.h"
#include "support/userdirs.h"
#include "voicebank/pitch.h"

const char kEditUsage[] =
    "usage: tona edit PROJECT -o OUT [--layer N] [--form 1.2|2.0] [--charset SET] OPERATION...\n"
    "\n"
    "Applies the operations to the project in the order given, as the editor\n"
    "does, prints one line per operation with its count, and saves OUT in the\n"
    "project's form (or --form). Nothing is written unless every operation ran.\n"
    "Notes are counted from 0, as 'tona info' lists them.\n"
    "  --layer N                 work on layer N only (default: every layer)\n"
    "  --charset utf-8|shift_jis read the project in this charset (default: as\n"
    "                            it says, or by its bytes when it says nothing)\n"
    "Selection:\n"
    "  --select I | I-J          select note I alone, or the notes I to J\n"
    "  --select-all              select every sounding note\n"
    "  --release                 clear the selection\n"
    "Notes:\n"
    "  --insert TICK:LENGTH:NOTE:LYRIC   a new note, as the pen tool makes it\n"
    "                            (NOTE: a number or a name such as C4)\n"
    "  --delete, --copy, --cut   the selected notes\n"
    "  --paste TICK              the copied notes, the first at TICK\n"
    "  --move TICKS[,NOTES][@STEP]   drag the selection (STEP: grid, default 1)\n"
    "  --resize TICKS[@STEP]     drag the selection's ends\n"
    "  --quantize STEP           move the selected notes onto the grid\n"
    "  --transpose N             semitones, kept within 24..107\n"
    "  --tempo TICK:BPM          a tempo change at TICK\n"
    "Lyrics:\n"
    "  --lyrics TEXT             flow TEXT in from the first selected note\n"
    "  --lyrics-selected TEXT    flow TEXT into the selected notes only\n"
    "Expression of the selected notes:\n"
    "  --vibrato default|clear\n"
    "  --envelope default|correct|equal|on|off\n"
    "  --pitch default\n"
    "History (every operation above that changes notes is one step):\n"
    "  --undo, --redo            step back or forward\n"
    "  --history                 at the end, the Undo and Redo menu titles and\n"
    "                            whether the project differs from the saved one\n"
    "While it runs, the project is kept in the recovery file ('tona recover').\n";

namespace {

enum class Op {
  kSelect, kSelectAll, kRelease, kInsert, kDelete, kCopy, kCut, kPaste, kMove, kResize,
  kQuantize, kTranspose, kTempo, kLyrics, kLyricsSelected, kVibrato, kEnvelope, kPitch, kUndo, kRedo,
};

struct Operation {
  Op op;
  std::string text;  // as given, for the report
  long a = 0, b = 0, c = 0;
  double value = 0.0;
  std::string word;
};

struct OpName {
  const char* name;
  Op op;
  bool takesValue;
};

const OpName kOps[] = {
    {"--select", Op::kSelect, true},       {"--select-all", Op::kSelectAll, false},
    {"--release", Op::kRelease, false},    {"--insert", Op::kInsert, true},
    {"--delete", Op::kDelete, false},      {"--copy", Op::kCopy, false},
    {"--cut", Op::kCut, false},            {"--paste", Op::kPaste, true},
    {"--move", Op::kMove, true},           {"--resize", Op::kResize, true},
    {"--quantize", Op::kQuantize, true},   {"--transpose", Op::kTranspose, true},
    {"--tempo", Op::kTempo, true},         {"--lyrics", Op::kLyrics, true},
    {"--lyrics-selected", Op::kLyricsSelected, true},
    {"--vibrato", Op::kVibrato, true},     {"--envelope", Op::kEnvelope, true},
    {"--pitch", Op::kPitch, true},         {"--undo", Op::kUndo, false},
    {"--redo", Op::kRedo, false},
};

const long kMaxTick = 1L << 30;

// "A" or "A<sep>B..." split at the first `count - 1` separators.
std::vector<std::string> split(const std::string& text, char separator, size_t count) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (parts.size() + 1 < count) {
    const size_t at = text.find(separator, start);
    if (at == std::string::npos) break;
    parts.push_back(text.substr(start, at - start));
    start = at + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

// "X[@STEP]": the step defaults to 1 (free).
bool parseStep(std::string* text, long* step) {
  *step = 1;
  const size_t at = text->find('@');
  if (at == std::string::npos) return true;
  const bool ok = parseInt(text->substr(at + 1), 1, 7680, step);
  text->erase(at);
  return ok;
}

bool parseNote(const std::string& text, long* note) {
  if (parseInt(text, 0, 127, note)) return true;
  const int32_t number = name2num(text.c_str());
  if (number <= 0 || number > 127) return false;
  *note = number;
  return true;
}

// Reads one operation's value; an empty string when it is fine, else what
// is wrong.
std::string parseValue(Operation* op, const std::string& value) {
  std::string text = value;
  switch (op->op) {
    case Op::kSelect: {
      const std::vector<std::string> range = split(text, '-', 2);
      if (!parseInt(range[0], 0, INT32_MAX, &op->a)) return "takes a note index or a range I-J";
      op->b = op->a;
      if (range.size() == 2 && !parseInt(range[1], 0, INT32_MAX, &op->b)) return "takes a note index or a range I-J";
      return "";
    }
    case Op::kInsert: {
      const std::vector<std::string> parts = split(text, ':', 4);
      if (parts.size() != 4) return "takes TICK:LENGTH:NOTE:LYRIC";
      if (!parseInt(parts[0], 0, kMaxTick, &op->a)) return "takes a tick position of 0 or more";
      if (!parseInt(parts[1], 1, CNoteMan::kMaxLength, &op->b)) return "takes a length of 1 to 7680 ticks";
      if (!parseNote(parts[2], &op->c)) return "takes a note number 0..127 or a name such as C4";
      if (parts[3].size() > 31) return "takes a lyric of at most 31 bytes";
      op->word = parts[3];
      return "";
    }
    case Op::kPaste:
      return parseInt(text, 0, kMaxTick, &op->a) ? "" : "takes a tick position of 0 or more";
    case Op::kMove: {
      if (!parseStep(&text, &op->c)) return "takes a step of 1 to 7680 after '@'";
      const std::vector<std::string> parts = split(text, ',', 2);
      if (!parseInt(parts[0], -kMaxTick, kMaxTick, &op->a)) return "takes TICKS[,NOTES][@STEP]";
      if (parts.size() == 2 && !parseInt(parts[1], -127, 127, &op->b)) return "takes TICKS[,NOTES][@STEP]";
      return "";
    }
    case Op::kResize:
      if (!parseStep(&text, &op->c)) return "takes a step of 1 to 7680 after '@'";
      return parseInt(text, -7680, 7680, &op->a) ? "" : "takes TICKS[@STEP], -7680..7680";
    case Op::kQuantize:
      return parseInt(text, 1, 7680, &op->a) ? "" : "takes a step of 1 to 7680 ticks";
    case Op::kTranspose:
      return parseInt(text, -127, 127, &op->a) ? "" : "takes semitones, -127..127";
    case Op::kTempo: {
      const std::vector<std::string> parts = split(text, ':', 2);
      if (parts.size() != 2 || !parseInt(parts[0], 0, kMaxTick, &op->a)) return "takes TICK:BPM";
      if (!parseDouble(parts[1], &op->value) || op->value < 10.0 || op->value > 1000.0) {
        return "takes a tempo of 10 to 1000 BPM";
      }
      return "";
    }
    case Op::kLyrics:
    case Op::kLyricsSelected:
      op->word = text;
      return text.empty() ? "takes a text" : "";
    case Op::kVibrato:
      op->word = text;
      return text == "default" || text == "clear" ? "" : "is default or clear";
    case Op::kEnvelope:
      op->word = text;
      return text == "default" || text == "correct" || text == "equal" || text == "on" || text == "off"
                 ? ""
                 : "is default, correct, equal, on or off";
    case Op::kPitch:
      op->word = text;
      return text == "default" ? "" : "is default";
    default:
      return "";
  }
}

class Editor {
 public:
  Editor(CCNoteMan& owner, bool hasBank)
      : owner_(owner), man_(*owner.noteman()), undo_(*owner.undoman()), hasBank_(hasBank) {}

  // Applies one operation; false (with *error set) when it cannot apply.
  bool apply(const Operation& op, std::string* report, std::string* error);

 private:
  bool checkIndex(long index, std::string* error) {
    if (index < man_.noteCount()) return true;
    *error = "no note " + std::to_string(index) + " (the project has " + std::to_string(man_.noteCount()) + ")";
    return false;
  }
  // The envelope commands need each note's rendered length.
  void prepare() {
    if (!prepared_) man_.engine()->preparationNotes();
    prepared_ = true;
  }

  // Runs an edit of the selection as one undo step.
  template <typename Edit>
  int32_t session(uint32_t cmd, Edit edit) {
    undo_.beginSession(cmd);
    const int32_t count = edit();
    undo_.endSession(cmd, owner_.undoCallback());
    return count;
  }

  CCNoteMan& owner_;
  CNoteMan& man_;
  CUndoMan& undo_;
  bool hasBank_;
  bool prepared_ = false;
};

bool Editor::apply(const Operation& op, std::string* report, std::string* error) {
  int32_t count = 0;
  ctonm2& engine = *man_.engine();
  switch (op.op) {
    case Op::kSelect:
      if (!checkIndex(op.a, error) || !checkIndex(op.b, error)) return false;
      man_.addSelect(static_cast<int32_t>(op.a), 0);
      if (op.b != op.a) man_.addSelect(static_cast<int32_t>(op.b), 1);
      count = man_.getSelectCount();
      break;
    case Op::kSelectAll:
      man_.SelectAll();
      count = man_.getSelectCount();
      break;
    case Op::kRelease:
      count = man_.getSelectCount();
      man_.ReleaseAll();
      break;
    case Op::kInsert:
      undo_.beginSession(-1, undo::kAdd);
      count = man_.insertNotePosition(op.a, static_cast<int32_t>(op.b), static_cast<int32_t>(op.c), op.word.c_str());
      if (count < 0) {
        *error = "out of memory";
        return false;
      }
      undo_.endSession(count, undo::kAdd, owner_.undoCallback());
      man_.synchronizeNotes();
      *report = "note " + std::to_string(count);
      return true;
    case Op::kDelete:
      count = session(undo::kDelete, [&] { return man_.DeleteNotes(); });
      man_.synchronizeNotes();
      break;
    case Op::kCopy:
      count = man_.CopyNotes();
      break;
    case Op::kCut:
      count = session(undo::kDelete, [&] { return man_.CutNotes(); });
      man_.synchronizeNotes();
      break;
    case Op::kPaste:
      count = session(undo::kAdd, [&] { return man_.PasteNotes(op.a); });
      man_.synchronizeNotes();
      break;
    case Op::kMove:
      count = session(undo::kMove, [&] {
        return owner_.dragSelection(static_cast<int32_t>(op.a), static_cast<int32_t>(op.b), static_cast<int32_t>(op.c));
      });
      break;
    case Op::kResize:
      count = session(undo::kLength,
                      [&] { return owner_.resizeSelection(static_cast<int32_t>(op.a), static_cast<int32_t>(op.c)); });
      break;
    case Op::kQuantize:
      count = session(undo::kQuantize, [&] { return owner_.quantizeSelection(static_cast<int32_t>(op.a)); });
      break;
    case Op::kTranspose:
      count = session(undo::kMove, [&] { return man_.addNoteNum(static_cast<int32_t>(op.a), -1); });
      break;
    case Op::kTempo: {
      owner_.setTempoAt(op.a, static_cast<float>(op.value));
      count = 1;
      break;
    }
    case Op::kLyrics:
    case Op::kLyricsSelected: {
      if (man_.getSelectCount() == 0) {
        *error = "no note is selected to flow the text into";
        return false;
      }
      std::vector<char> buffer(op.word.begin(), op.word.end());
      buffer.push_back('\0');
      const bool selectedOnly = op.op == Op::kLyricsSelected;
      // As the lyric dialog does: a dry run selects the notes the text
      // will reach, so that the step records exactly them.
      if (!selectedOnly) man_.assignLyric(buffer.data(), buffer.size(), false, true);
      undo_.beginSession(undo::kLyric);
      man_.assignLyric(buffer.data(), buffer.size(), selectedOnly, false, &count);
      undo_.endSession(undo::kLyric, owner_.undoCallback());
      CMultiByte cm;
      const char* left = cm.sjisToUtf8(buffer.data());
      *report = std::to_string(count) + " (left: \"" + (left != nullptr ? left : "") + "\")";
      return true;
    }
    case Op::kVibrato:
      count = session(undo::kVibrato, [&] {
        return op.word == "default" ? man_.defaultVibratoToSelected() : man_.clearVibratoToSelected();
      });
      break;
    case Op::kEnvelope:
      if (op.word == "correct" || op.word == "equal") {
        if (!hasBank_) fprintf(stderr, "warning: no voice bank: note lengths are taken without its timing\n");
        prepare();
      }
      count = session(undo::kEnvelope, [&] {
        if (op.word == "default") return man_.defaultEnvForSelected();
        if (op.word == "correct") return man_.correctEnvForSelected();
        if (op.word == "equal") return man_.equalSpaceEnvForSelected();
        return man_.switchEnvForSelected(op.word == "on");
      });
      break;
    case Op::kPitch:
      count = session(undo::kPitch, [&] {
        int32_t changed = 0;
        for (int32_t i = 0; i < engine.noteCount; ++i) {
          if (man_.isSelected(i)) changed += man_.defaultPitch(i);
        }
        return changed;
      });
      break;
    case Op::kUndo:
    case Op::kRedo:
      count = op.op == Op::kUndo ? undo_.isCanUndo() : undo_.isCanRedo();
      if (op.op == Op::kUndo) undo_.undo(owner_.undoCallback());
      if (op.op == Op::kRedo) undo_.redo(owner_.undoCallback());
      man_.synchronizeNotes();
      break;
  }
  if (op.op == Op::kInsert || op.op == Op::kDelete || op.op == Op::kCut || op.op == Op::kPaste ||
      op.op == Op::kMove || op.op == Op::kResize || op.op == Op::kQuantize || op.op == Op::kTempo ||
      op.op == Op::kUndo || op.op == Op::kRedo) {
    prepared_ = false;
  }
  *report = std::to_string(count);
  return true;
}

}  // namespace

int runEdit(int argc, char** argv) {
  const Command& command = *findCommand("edit");
  std::string project, output, layerText, form, charsetText, charset;
  bool history = false;
  std::vector<Operation> ops;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(command.usage, stdout);
      return kExitOk;
    }
    std::string name = arg, value;
    bool inlineValue = false;
    const size_t equals = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      name = arg.substr(0, equals);
      value = arg.substr(equals + 1);
      inlineValue = true;
    }
    auto takeValue = [&](std::string* out) {
      if (inlineValue) return *out = value, true;
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    if (name == "--history" && !inlineValue) {
      history = true;
      continue;
    }
    if (name == "-o" || name == "--output" || name == "--layer" || name == "--form" || name == "--charset") {
      std::string* target = name == "--layer"   ? &layerText
                            : name == "--form"  ? &form
                            : name == "--charset" ? &charsetText
                                                  : &output;
      if (!takeValue(target)) return usageError(command, (name + " needs a value").c_str());
      continue;
    }
    const OpName* known = nullptr;
    for (const OpName& entry : kOps) {
      if (name == entry.name) known = &entry;
    }
    if (known != nullptr) {
      Operation op;
      op.op = known->op;
      op.text = name;
      if (known->takesValue) {
        if (!takeValue(&value)) return usageError(command, (name + " needs a value").c_str());
        op.text += " " + value;
        const std::string problem = parseValue(&op, value);
        if (!problem.empty()) return usageError(command, (op.text + ": " + name + " " + problem).c_str());
      } else if (inlineValue) {
        return usageError(command, (name + " takes no value").c_str());
      }
      ops.push_back(op);
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') return usageError(command, ("unknown option '" + arg + "'").c_str());
    if (!project.empty()) return usageError(command, "one project only");
    project = arg;
  }
  if (project.empty()) return usageError(command, "no project given");
  if (output.empty()) return usageError(command, "no output file given (-o OUT)");
  if (ops.empty()) return usageError(command, "no operation given");
  long layer = -1;
  if (!layerText.empty() && !parseInt(layerText, 0, 15, &layer)) return usageError(command, "--layer takes 0 to 15");
  if (!form.empty() && form != "1.2" && form != "2.0") return usageError(command, "--form is 1.2 or 2.0");
  const std::string problem = outputProblem(output, {project}, {".snt"});
  if (!problem.empty()) {
    fprintf(stderr, "tona edit: %s\n", problem.c_str());
    return kExitUsage;
  }

  CScaleMan scale;
  CCNoteMan owner(&scale);
  CNoteMan& man = *owner.noteman();
  const std::string voices = userFolder(UserFolder::kVoice);
  if (!parseCharset(charsetText, &charset)) return usageError(command, "--charset is utf-8 or shift_jis");
  if (!openProjectFile(man, project, "edit", charset)) return kExitFailure;
  ctonm2& engine = *man.engine();
  // The voice bank gives the envelope commands each note's real length;
  // every other operation works without it. It is found as render finds
  // it, and the project keeps its own text.
  const std::string savedVoiceDir = engine.voiceDir;
  const std::string bank = savedVoiceDir.empty() ? std::string() : resolveVoiceBank(project, savedVoiceDir, nullptr);
  struct stat info;
  bool hasBank = false;
  if (!bank.empty() && stat(bank.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    engine.set_voiceDir(bank.c_str());
    hasBank = man.readVoiceset() > 0;
    engine.set_voiceDir(savedVoiceDir.c_str());
  }
  man.setTargetLayer(static_cast<int32_t>(layer));
  man.synchronizeNotes();

  // The project is kept in the recovery file while it is edited, unless
  // that file holds another session's work.
  const std::string recovery = recoveryFilePath();
  const bool keepRecovery = !recovery.empty() && access(recovery.c_str(), F_OK) != 0;
  if (!keepRecovery && !recovery.empty()) {
    fprintf(stderr, "warning: a recovery file is waiting ('tona recover'); this edit keeps no recovery copy\n");
  }
  owner.setKeepRecovery(keepRecovery);

  Editor editor(owner, hasBank);
  for (const Operation& op : ops) {
    std::string report, error;
    if (!editor.apply(op, &report, &error)) {
      fprintf(stderr, "tona edit: %s: %s; nothing written\n", op.text.c_str(), error.c_str());
      if (keepRecovery) unlink(recovery.c_str());  // the input is untouched: nothing to recover
      return kExitUsage;
    }
    printf("%s: %s\n", op.text.c_str(), report.c_str());
  }
  CUndoMan& undo = *owner.undoman();
  if (history) {
    printf("undo: %s\nredo: %s\nmodified: %s\n", undoMenuTitle(undo.getNextUndo()).c_str(),
           redoMenuTitle(undo.getNextRedo()).c_str(), undo.getModified() ? "yes" : "no");
  }

  if (form == "1.2") engine.sntVersion = 120;
  if (form == "2.0") engine.sntVersion = 200;
  errno = 0;
  SafeOutput file(output);
  if (file.path().empty() || man.writeSnt(file.path().c_str(), voices.c_str()) != 1 || !file.commit()) {
    fprintf(stderr, "tona edit: cannot write '%s': %s\n", output.c_str(), strerror(errno != 0 ? errno : EIO));
    if (keepRecovery && undo.getModified()) fprintf(stderr, "the edited project is kept in '%s'\n", recovery.c_str());
    return kExitFailure;
  }
  undo.setSavePoint(owner.undoCallback());  // removes the recovery file
  return kExitOk;
}
