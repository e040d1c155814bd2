// Option parsing shared by the subcommands: "--name VALUE", "--name=VALUE",
// short "-o VALUE", flags, "--help", and "--" ending the options.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/command.h"

class ArgParser {
 public:
  explicit ArgParser(const Command& command) : command_(command) {}

  // Declares an option taking a value; `seen` (optional) tells whether it came.
  void option(const char* name, std::string* value, bool* seen = nullptr);
  void flag(const char* name, bool* value);

  // Parses argv[1..argc). Returns -1 when the command should go on, else
  // the exit status to return at once: 0 after --help was printed, 2 after
  // an unknown option, a missing value or a positional count outside
  // [minPositional, maxPositional] (maxPositional < 0: no limit).
  int parse(int argc, char** argv, std::vector<std::string>* positional, int minPositional,
            int maxPositional);

 private:
  struct OptionRule {
    std::string name;
    std::string* value;
    bool* seen;
    bool* flag;
  };
  const OptionRule* find(const std::string& name) const;

  const Command& command_;
  std::vector<OptionRule> rules_;
};

// Reads a whole decimal integer in [low, high]; false when it does not.
bool parseInt(const std::string& text, long low, long high, long* out);
// Reads a whole finite decimal number; false when it does not.
bool parseDouble(const std::string& text, double* out);
// Reads a size in bytes: a whole number with an optional K, M or G
// (binary multiples); false when it does not.
bool parseSize(const std::string& text, int64_t* out);
