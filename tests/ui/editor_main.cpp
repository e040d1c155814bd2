// The editor's tests run on Qt's offscreen platform with SDL's dummy audio
// driver and their own settings folder: no display, no sound card, and
// nothing of the user's touched.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

#include "tests/testutil.h"

int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 1);
  setenv("SDL_AUDIODRIVER", "dummy", 1);
  static TempDir config;
  setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
  setenv("XDG_RUNTIME_DIR", config.path().c_str(), 1);
  QApplication app(argc, argv);
  QApplication::setOrganizationName("tona");
  QApplication::setApplicationName("tona-editor-tests");
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
