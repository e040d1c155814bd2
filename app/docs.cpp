// The manual page and the bash completion, made from the commands' own
// help texts so that they never say something the program does not do.

#include "app/docs.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "app/command.h"

namespace {

// A line of help text as roff: backslashes escaped, a leading dot or quote
// kept from being read as a request.
void roffLine(const std::string& line, FILE* out) {
  std::string text;
  for (char c : line) text += c == '\\' ? std::string("\\e") : std::string(1, c);
  if (!text.empty() && (text[0] == '.' || text[0] == '\'')) text = "\\&" + text;
  fprintf(out, "%s\n", text.c_str());
}

void roffBlock(const char* text, FILE* out) {
  std::string line;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\n') {
      roffLine(line, out);
      line.clear();
    } else {
      line += *p;
    }
  }
  if (!line.empty()) roffLine(line, out);
}

// The long options a command's help text names.
std::set<std::string> optionsOf(const char* usage) {
  std::set<std::string> options;
  for (const char* p = strstr(usage, "--"); p != nullptr; p = strstr(p + 2, "--")) {
    size_t n = 2;
    while (p[n] == '-' || (p[n] >= 'a' && p[n] <= 'z')) ++n;
    if (n > 2) options.insert(std::string(p, n));
  }
  options.insert("--help");
  return options;
}

}  // namespace

void writeManPage(FILE* out) {
  fprintf(out, ".TH TONA 1 \"\" \"tona %s\" \"User Commands\"\n", TONA_VERSION);
  fputs(".SH NAME\ntona \\- singing-voice synthesizer by sample concatenation\n"
        ".SH SYNOPSIS\n.B tona\n[\\fB\\-\\-help\\fR] [\\fB\\-\\-version\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR...]\n"
        ".SH DESCRIPTION\n"
        "TONA renders singing from a project of notes (an SNT file) and a voice bank (a folder of recorded\n"
        "syllables with an oto.ini timing table): each note's sample is pitch-shifted and stretched to the\n"
        "note and overlapped with its neighbours, giving 16-bit mono 44.1 kHz audio.\n"
        ".SH COMMANDS\n",
        out);
  for (const Command* command = kCommands; command->name != nullptr; ++command) {
    fprintf(out, ".SS %s\n%s.\n.PP\n.nf\n", command->name, command->summary);
    roffBlock(command->usage, out);
    fputs(".fi\n", out);
  }
  fputs(".SH EXIT STATUS\n0 on success, 1 on failure, 2 on a usage error; 130 when a render is stopped with Ctrl\\-C.\n"
        ".SH ENVIRONMENT\n"
        ".TP\n.B tonm_log_path, tonm_log_level\nA log file (default: standard error) and its threshold, 1 (errors) to 6.\n"
        ".TP\n.B XDG_DATA_HOME, XDG_STATE_HOME, XDG_CACHE_HOME\n"
        "Where the user's voice banks (tona/voice), the recovery file (tona/temp) and the render cache\n"
        "(tona/cache) live; by default below ~/.local/share, ~/.local/state and ~/.cache.\n"
        ".TP\n.B SDL_AUDIODRIVER\nThe sound system \\fBtona play\\fR uses (dummy and disk drivers play without a card).\n",
        out);
}

void writeBashCompletion(FILE* out) {
  fputs("# bash completion for tona, made by 'tona help --completion'\n_tona() {\n"
        "  local cur=${COMP_WORDS[COMP_CWORD]}\n"
        "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n    COMPREPLY=($(compgen -W \"--help --version",
        out);
  for (const Command* command = kCommands; command->name != nullptr; ++command) fprintf(out, " %s", command->name);
  fputs("\" -- \"$cur\"))\n    return\n  fi\n  local options\n  case ${COMP_WORDS[1]} in\n", out);
  for (const Command* command = kCommands; command->name != nullptr; ++command) {
    fprintf(out, "    %s) options=\"", command->name);
    bool first = true;
    for (const std::string& option : optionsOf(command->usage)) {
      fprintf(out, "%s%s", first ? "" : " ", option.c_str());
      first = false;
    }
    fputs("\" ;;\n", out);
  }
  fputs("  esac\n  if [[ $cur == -* ]]; then\n    COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
        "  else\n    COMPREPLY=($(compgen -f -- \"$cur\"))\n  fi\n}\ncomplete -o filenames -F _tona tona\n",
        out);
}
