// What the editor does once at start-up: the question about a project
// left behind by a crash.
#pragma once

#include <QString>

class MainWindow;

// When the recovery file exists, asks "前回異常終了したプロジェクトがあります。"
// with the buttons "読み込む(Load project)" and "破棄する(Discard)": loading opens
// it in `window` as an unsaved, modified project; discarding removes it.
// Returns true when a project was loaded.
bool offerRecovery(MainWindow* window, const QString& recoveryPath);
