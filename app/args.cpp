#include "app/args.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

void ArgParser::option(const char* name, std::string* value, bool* seen) {
  rules_.push_back({name, value, seen, nullptr});
}

void ArgParser::flag(const char* name, bool* value) {
  rules_.push_back({name, nullptr, nullptr, value});
}

const ArgParser::OptionRule* ArgParser::find(const std::string& name) const {
  for (const OptionRule& rule : rules_) {
    if (rule.name == name) return &rule;
  }
  return nullptr;
}

int ArgParser::parse(int argc, char** argv, std::vector<std::string>* positional,
                     int minPositional, int maxPositional) {
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    // Options are "-x" and "--name": "-", "-5" and a lyric such as "- a"
    // are arguments.
    const bool option = arg.size() >= 2 && arg[0] == '-' &&
                        (isalpha(static_cast<unsigned char>(arg[1])) ||
                         (arg[1] == '-' && (arg.size() == 2 || isalpha(static_cast<unsigned char>(arg[2])))));
    if (optionsEnded || !option) {
      positional->push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      fputs(command_.usage, stdout);
      return kExitOk;
    }
    std::string name = arg;
    std::string inlineValue;
    bool hasInline = false;
    size_t equals = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      name = arg.substr(0, equals);
      inlineValue = arg.substr(equals + 1);
      hasInline = true;
    }
    const OptionRule* rule = find(name);
    if (rule == nullptr) {
      return usageError(command_, ("unknown option '" + name + "'").c_str());
    }
    if (rule->flag != nullptr) {
      if (hasInline) return usageError(command_, ("option '" + name + "' takes no value").c_str());
      *rule->flag = true;
      continue;
    }
    if (!hasInline) {
      if (i + 1 >= argc) return usageError(command_, ("option '" + name + "' needs a value").c_str());
      inlineValue = argv[++i];
    }
    *rule->value = inlineValue;
    if (rule->seen != nullptr) *rule->seen = true;
  }
  int count = static_cast<int>(positional->size());
  if (count < minPositional) return usageError(command_, "missing argument");
  if (maxPositional >= 0 && count > maxPositional) {
    return usageError(command_, ("unexpected argument '" + (*positional)[maxPositional] + "'").c_str());
  }
  return -1;
}

bool parseInt(const std::string& text, long low, long high, long* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long value = strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  *out = value;
  return true;
}

bool parseDouble(const std::string& text, double* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  double value = strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(value)) return false;
  *out = value;
  return true;
}

bool parseSize(const std::string& text, int64_t* out) {
  if (text.empty()) return false;
  std::string digits = text;
  int shift = 0;
  const char unit = static_cast<char>(toupper(static_cast<unsigned char>(digits.back())));
  if (unit == 'K' || unit == 'M' || unit == 'G') {
    shift = unit == 'K' ? 10 : unit == 'M' ? 20 : 30;
    digits.pop_back();
  }
  long value = 0;
  if (!parseInt(digits, 0, (1L << 40), &value)) return false;
  *out = static_cast<int64_t>(value) << shift;
  return true;
}
