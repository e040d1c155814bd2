#include "support/log.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "tests/testutil.h"

namespace {

class Logger : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    if (f_log != nullptr && f_log != stderr) fclose(f_log);
    f_log = nullptr;
    errorlevel = 3;
  }
  // Logs to a file at the given threshold and returns what was written.
  template <class Body>
  std::string logToFile(const char* level, Body body) {
    std::string path = dir_.file("log.txt");
    log_init(path.c_str(), level);
    body();
    fclose(f_log);
    f_log = nullptr;
    return readFile(path);
  }
  TempDir dir_;
};

// Removes the "YYYY/MM/DD hh:mm:ss " stamp from the start of every line and
// puts "@ " in its place; a line without it is kept as it is.
std::string markStamps(const std::string& text) {
  const char shape[] = "dddd/dd/dd dd:dd:dd ";
  const size_t width = sizeof shape - 1;
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    end = end == std::string::npos ? text.size() : end + 1;
    std::string line = text.substr(pos, end - pos);
    bool stamped = line.size() >= width;
    for (size_t i = 0; stamped && i < width; ++i) {
      stamped = shape[i] == 'd' ? isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
    }
    out += stamped ? "@ " + line.substr(width) : line;
    pos = end;
  }
  return out;
}

}  // namespace

TEST_F(Logger, WritesNothingBeforeInit) {
  testing::internal::CaptureStderr();
  log_printf(1, "lost %d\n", 1);
  log_write("lost", 1);
  printnow(1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Logger, DefaultsToStderrAtThresholdThree) {
  ScopedEnv path("tonm_log_path", nullptr);
  ScopedEnv level("tonm_log_level", nullptr);
  testing::internal::CaptureStderr();
  log_init(nullptr, nullptr);
  log_printf(4, "hidden\n");
  log_printf(3, "Done.\n");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(f_log, stderr);
  EXPECT_EQ(errorlevel, 3);
  EXPECT_EQ(markStamps(err), "@ [NOTE] Done.\n");
}

TEST_F(Logger, PrefixCarriesTimeAndTagForLevelsOneToFour) {
  std::string text = logToFile("5", [] {
    log_printf(1, "Not enough memories(render)\n");
    log_write("No voice data", 2);
    log_printf(5, "velocity=%lf\n", 100.0);
    log_printf(6, "too detailed\n");
  });
  EXPECT_EQ(markStamps(text),
            "@ [INFO] logging level:5\n"
            "@ [INFO] logging to '" + dir_.file("log.txt") + "'\n"
            "@ [ERR] Not enough memories(render)\n"
            "@ [WAR] No voice data\n"
            "@ velocity=100.000000\n");
}

TEST_F(Logger, ThresholdSixWritesEverythingBare) {
  std::string text = logToFile("6", [] {
    log_printf(6, "%d -> %d  \r", 1, 2);
    log_printf(1, "bad\n");
  });
  EXPECT_EQ(text, "logging level:6\nlogging to '" + dir_.file("log.txt") + "'\n1 -> 2  \rbad\n");
}

TEST_F(Logger, EnvironmentNamesTheFileAndTheLevel) {
  std::string path = dir_.file("env.log");
  ScopedEnv pathVar("tonm_log_path", path.c_str());
  ScopedEnv levelVar("tonm_log_level", "2");
  log_init(nullptr, nullptr);
  EXPECT_EQ(errorlevel, 2);
  log_printf(3, "filtered\n");
  log_printf(2, "kept\n");
  log_end();
  EXPECT_EQ(f_log, stderr);  // logging goes on to stderr after log_end
  std::string text = readFile(path);
  EXPECT_EQ(text.find("filtered"), std::string::npos);
  EXPECT_NE(text.find("[WAR] kept\n"), std::string::npos);
}

TEST_F(Logger, UnreadableLevelKeepsTheThresholdAndBadPathFallsBackToStderr) {
  set_loglevel(4);
  testing::internal::CaptureStderr();
  log_init(dir_.file("no/such/dir/log.txt").c_str(), "loud");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(errorlevel, 4);
  EXPECT_EQ(f_log, stderr);
  EXPECT_NE(err.find("logging level:4\n"), std::string::npos);
  EXPECT_NE(err.find("logging to stderr.\n"), std::string::npos);
}
