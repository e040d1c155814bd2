// Helpers shared by the tests: temporary folders, environment overrides,
// running the tona binary.
#pragma once

#include <string>
#include <vector>

// A fresh folder below $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Sets (or, with a null value, unsets) an environment variable for the
// scope and puts the old value back afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool hadOld_;
};

// Points HOME and the XDG base variables at a temporary folder, so that no
// test touches the real home folder.
class FakeHome {
 public:
  FakeHome();
  const std::string& path() const { return dir_.path(); }

 private:
  TempDir dir_;
  ScopedEnv home_, data_, state_, cache_;
};

std::string readFile(const std::string& path);
bool writeFile(const std::string& path, const std::string& contents);
bool fileExists(const std::string& path);

struct RunResult {
  int status;  // exit status, or -1 when the program did not exit normally
  std::string out;
  std::string err;
};
// Runs the tona binary with the given arguments (no shell involved). A
// positive fileSizeLimit caps the size of files it writes (writes past it
// fail), to test what happens on a full disk.
RunResult runTona(const std::vector<std::string>& args, long fileSizeLimit = 0);
