// What the editor does once at start-up: the question about the projects
// that sessions which ended abnormally left behind.
#pragma once

class MainWindow;

// When recovery copies were left behind, asks "前回異常終了したプロジェクトがあります。"
// over a list of them (project name, path, when written; each ticked) with
// the buttons "読み込む(Load project)" and "破棄する(Discard)": loading opens
// each ticked copy as an unsaved, modified project, the first in `window`,
// and leaves the others for the next start; discarding removes them all,
// and closing the question keeps them all.
// Returns the number of projects loaded.
int offerRecovery(MainWindow* window);
