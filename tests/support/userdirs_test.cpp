#include "support/userdirs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/testutil.h"

TEST(UserFolders, FollowHomeWhenXdgIsUnset) {
  FakeHome home;
  EXPECT_EQ(userFolder(UserFolder::kVoice), home.path() + "/.local/share/tona/voice");
  EXPECT_EQ(userFolder(UserFolder::kRecovery), home.path() + "/.local/state/tona/temp");
  EXPECT_EQ(userFolder(UserFolder::kCache), home.path() + "/.cache/tona/cache");
  EXPECT_FALSE(fileExists(home.path() + "/.cache"));  // not made unless asked
}

TEST(UserFolders, XdgVariablesWinWhenAbsolute) {
  FakeHome home;
  ScopedEnv data("XDG_DATA_HOME", (home.path() + "/data/").c_str());
  ScopedEnv cache("XDG_CACHE_HOME", "relative/ignored");
  EXPECT_EQ(userFolder(UserFolder::kVoice), home.path() + "/data/tona/voice");
  EXPECT_EQ(userFolder(UserFolder::kCache), home.path() + "/.cache/tona/cache");
}

TEST(UserFolders, CreatesFoldersOnRequest) {
  FakeHome home;
  std::string cache = userFolder(UserFolder::kCache, true);
  struct stat info;
  ASSERT_EQ(stat(cache.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(userFolder(UserFolder::kCache, true), cache);  // again: no harm
}

TEST(UserFolders, EmptyWithoutHome) {
  ScopedEnv home("HOME", nullptr);
  ScopedEnv state("XDG_STATE_HOME", nullptr);
  EXPECT_EQ(userFolder(UserFolder::kRecovery, true), "");
}

TEST(UserFolders, NoFolderIsMadeOfAnEmptyPath) { EXPECT_FALSE(makeFolders("")); }
