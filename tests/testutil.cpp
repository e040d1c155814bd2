#include "tests/testutil.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/tona-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) != nullptr) path_ = buffer.data();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  nftw(path_.c_str(),
       [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 16,
       FTW_DEPTH | FTW_PHYS);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  const char* old = getenv(name);
  hadOld_ = old != nullptr;
  if (hadOld_) old_ = old;
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (hadOld_) {
    setenv(name_.c_str(), old_.c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

FakeHome::FakeHome()
    : home_("HOME", dir_.path().c_str()),
      data_("XDG_DATA_HOME", nullptr),
      state_("XDG_STATE_HOME", nullptr),
      cache_("XDG_CACHE_HOME", nullptr) {}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool writeFile(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  return static_cast<bool>(out);
}

bool fileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

RunResult runTona(const std::vector<std::string>& args, long fileSizeLimit) {
  TempDir dir;
  std::string outPath = dir.file("out"), errPath = dir.file("err");
  pid_t pid = fork();
  if (pid == 0) {
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, 1);
    dup2(err, 2);
    // The program must live through its own SIGXFSZ: nothing is ignored for it.
    signal(SIGXFSZ, SIG_DFL);
    if (fileSizeLimit > 0) {
      struct rlimit limit = {static_cast<rlim_t>(fileSizeLimit), static_cast<rlim_t>(fileSizeLimit)};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    alarm(300);  // a hang ends as a failure, not as a stuck suite
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(TONA_BINARY));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(TONA_BINARY, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  RunResult result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = readFile(outPath);
  result.err = readFile(errPath);
  return result;
}
