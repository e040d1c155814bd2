// The subcommands of the tona command line.
#pragma once

// Exit statuses shared by every subcommand.
enum ExitStatus { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

struct Command {
  const char* name;
  const char* summary;  // one line for `tona --help`
  const char* usage;    // the full text for `tona help NAME` and NAME --help
  // argv[0] is the command's name; returns an ExitStatus.
  int (*run)(int argc, char** argv);
};

// Every subcommand, in the order `tona --help` lists them; ends with a
// record whose name is null.
extern const Command kCommands[];

const Command* findCommand(const char* name);

// Prints "tona NAME: MESSAGE" and the command's usage on stderr; returns
// kExitUsage.
int usageError(const Command& command, const char* message);

// The whole program: dispatches argv[1]; returns the exit status.
int tonaMain(int argc, char** argv);
