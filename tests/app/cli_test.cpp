#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

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

TEST(Cli, InstallPutsTheCommandItsManualAndCompletionOnly) {
  // The build tree the tests run from: .../build/app/tona.
  const std::string binary = TONA_BINARY;
  const std::string tree = binary.substr(0, binary.rfind("/app/"));
  TempDir prefix;
  const std::string command = "cmake --install '" + tree + "' --prefix '" + prefix.path() + "' >/dev/null 2>&1";
  ASSERT_EQ(system(command.c_str()), 0);
  EXPECT_TRUE(fileExists(prefix.file("bin/tona")));
  EXPECT_TRUE(fileExists(prefix.file("share/bash-completion/completions/tona")));
  const std::string manual = readFile(prefix.file("share/man/man1/tona.1"));
  for (const char* name : {"render", "play", "edit", "recover", "convert", "analyze", "voicebank", "cache"}) {
    EXPECT_NE(manual.find(std::string(".SS ") + name + "\n"), std::string::npos) << name;
  }
  EXPECT_FALSE(fileExists(prefix.file("lib")));  // no internal archive
  EXPECT_FALSE(fileExists(prefix.file("lib64")));
  // The completion is valid bash and knows the commands' options.
  const std::string completion = readFile(prefix.file("share/bash-completion/completions/tona"));
  EXPECT_NE(completion.find("--cache-limit"), std::string::npos);
  EXPECT_EQ(system(("bash -n '" + prefix.file("share/bash-completion/completions/tona") + "'").c_str()), 0);
}
