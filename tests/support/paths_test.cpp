// Paths made absolute and relative, as the project keeps its audio track.
#include "support/paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

TEST(Paths, AbsoluteRelativeAndFolders) {
  struct Case {
    const char* folder;
    const char* path;
    const char* relative;
  };
  for (const Case& c : {Case{"/songs", "/songs/track.wav", "track.wav"},
                        Case{"/songs/a", "/songs/b/track.wav", "../b/track.wav"},
                        Case{"/songs/a/b", "/music/track.wav", "../../../music/track.wav"},
                        Case{"/songs/./a/../a", "/songs/a/x/track.wav", "x/track.wav"},
                        Case{"/", "/track.wav", "track.wav"}}) {
    EXPECT_EQ(relativeTo(c.folder, c.path), c.relative) << c.folder << " " << c.path;
    EXPECT_EQ(absoluteFrom(c.folder, c.relative), absolutePath(c.path)) << c.folder << " " << c.path;
  }
  EXPECT_EQ(absolutePath("/a/b/../c/./d//e/"), "/a/c/d/e");
  EXPECT_EQ(absolutePath("/.."), "/");
  EXPECT_EQ(absoluteFrom("/x", "/abs/t.wav"), "/abs/t.wav");
  char here[4096];
  ASSERT_NE(getcwd(here, sizeof here), nullptr);
  EXPECT_EQ(absolutePath("t.wav"), absolutePath(std::string(here) + "/t.wav"));
  EXPECT_EQ(relativeTo("", "t.wav"), "t.wav");
  EXPECT_EQ(relativeTo("/x", ""), "");
  EXPECT_EQ(folderOf("/a/b/song.snt"), "/a/b");
  EXPECT_EQ(folderOf("/song.snt"), "/");
  EXPECT_EQ(folderOf("song.snt"), ".");
}
