#include "support/log.h"

#include <gtest/gtest.h>

#include <regex>
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

const char kStamp[] = R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2} )";

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
  EXPECT_TRUE(std::regex_match(err, std::regex(std::string(kStamp) + R"(\[NOTE\] Done\.\n)"))) << err;
}

TEST_F(Logger, PrefixCarriesTimeAndTagForLevelsOneToFour) {
  std::string text = logToFile("5", [] {
    log_printf(1, "Not enough memories(render)\n");
    log_write("No voice data", 2);
    log_printf(5, "velocity=%lf\n", 100.0);
    log_printf(6, "too detailed\n");
  });
  std::string stamp = kStamp;
  std::regex expected(stamp + R"(\[INFO\] logging level:5\n)" +      //
                      stamp + R"(\[INFO\] logging to '.*log\.txt'\n)" +  //
                      stamp + R"(\[ERR\] Not enough memories\(render\)\n)" +  //
                      stamp + R"(\[WAR\] No voice data\n)" +               //
                      stamp + R"(velocity=100\.000000\n)");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
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
