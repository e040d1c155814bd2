#include <gtest/gtest.h>

#include "tests/testutil.h"

TEST(Cli, HelpListsCommandsAndVersionPrints) {
  RunResult help = runTona({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: tona"), std::string::npos);
  EXPECT_NE(help.out.find("  help "), std::string::npos);

  RunResult version = runTona({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("tona ", 0), 0u);

  RunResult helpHelp = runTona({"help", "help"});
  EXPECT_EQ(helpHelp.status, 0);
  EXPECT_EQ(helpHelp.out.rfind("usage: tona help", 0), 0u);
}

TEST(Cli, UnknownCommandOrOptionIsAUsageError) {
  for (auto args : {std::vector<std::string>{"frobnicate"}, std::vector<std::string>{"--frob"},
                    std::vector<std::string>{}, std::vector<std::string>{"help", "nothing"}}) {
    RunResult run = runTona(args);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("tona: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find("usage: tona"), std::string::npos);
  }
}
