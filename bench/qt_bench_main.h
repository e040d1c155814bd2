// The main of a benchmark program that draws widgets: Qt's offscreen
// platform, a home of its own, then Google Benchmark.
#pragma once

#include <benchmark/benchmark.h>

#include <QApplication>
#include <cstdlib>

#include "tests/testutil.h"

inline int runQtBenchmarks(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 1);
  TempDir config;
  setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
  FakeHome home;
  QApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
