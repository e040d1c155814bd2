// Writing an output file without ever leaving a half-written one: the
// writer fills a temporary file in the target's folder, which replaces the
// target only when complete.
#pragma once

#include <string>

class SafeOutput {
 public:
  explicit SafeOutput(const std::string& target);
  ~SafeOutput();  // removes the temporary file unless committed
  SafeOutput(const SafeOutput&) = delete;
  SafeOutput& operator=(const SafeOutput&) = delete;

  // The temporary path to write to; empty when it could not be made.
  const std::string& path() const { return temporary_; }
  // Renames the temporary file over the target. False (errno set) when the
  // rename fails; the temporary file is then removed.
  bool commit();

 private:
  std::string target_;
  std::string temporary_;
};
