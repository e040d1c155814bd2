// Writing an output file without ever destroying anything.
//
// A regular file (or a new one) is written to a temporary file in the
// target's folder ("TARGET.tmp-XXXXXX", held locked), which replaces the
// target only when complete; temporaries of the same target that a killed
// writer left behind are removed first. A symbolic link is written through
// to its target, the same way, unless it leads to a file of another
// extension (EPERM) or round in a loop (ELOOP). Anything else that exists
// (a device, a FIFO, /dev/stdout) is opened and written directly, and "-"
// stands for standard output.
#pragma once

#include <string>
#include <vector>

class SafeOutput {
 public:
  // `removeStale` off skips the look for stale temporaries (a folder of
  // thousands of files written one after another: the render cache, a
  // bank's tables).
  explicit SafeOutput(const std::string& target, bool removeStale = true);
  ~SafeOutput();  // removes the temporary file unless committed
  SafeOutput(const SafeOutput&) = delete;
  SafeOutput& operator=(const SafeOutput&) = delete;

  // The path to write to; empty when it could not be made (errno set).
  const std::string& path() const { return temporary_; }
  // Puts the written file in place. False (errno set) when the rename
  // fails; the temporary file is then removed.
  bool commit();

 private:
  std::string target_;
  std::string temporary_;
  bool direct_ = false;  // written in place: nothing to rename
  int lock_ = -1;        // the temporary, held locked until it is put in place
};

// What is wrong with writing `output`, or "" when nothing is: the output
// is one of `inputs` (the same file, however named), a loop of links, a
// link to a file of another extension, or its extension (the extension of
// the file it leads to) is none of `extensions` (each with its dot,
// compared without case; a name without an extension, "-" and files that
// are not regular are fine).
std::string outputProblem(const std::string& output, const std::vector<std::string>& inputs,
                          const std::vector<std::string>& extensions);
