// Preferences: the output device (with a test tone), keyboard shortcuts,
// playing while rendering or rendering first, render threads, the render
// cache, logging, and the defaults of new notes and the grid. Kept in the
// editor's settings and applied to every open window.
#pragma once

#include <QDialog>
#include <QKeySequenceEdit>
#include <QString>

class MainWindow;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QSpinBox;
class QTableWidget;

// What the rest of the editor reads back.
struct EditorPreferences {
  QString device;  // "" for the default output
  bool renderFirst = false;
  int renderThreads = 2;
  int logLevel = 3;
  QString logFile;
  int noteLength = 480;
  int grid = 120;
  static EditorPreferences load();
  void save() const;
  // Logging as chosen, now.
  void applyLogging() const;
};

// A shortcut's field: Backspace or Delete alone clears it (the command
// then has no key) instead of being taken as the key.
class ShortcutEdit : public QKeySequenceEdit {
  Q_OBJECT

 public:
  using QKeySequenceEdit::QKeySequenceEdit;

 protected:
  void keyPressEvent(QKeyEvent* event) override;
};

class PreferencesDialog : public QDialog {
  Q_OBJECT

 public:
  explicit PreferencesDialog(MainWindow* window);
  QComboBox* device() const { return device_; }
  QTableWidget* shortcuts() const { return shortcuts_; }
  QSpinBox* threads() const { return threads_; }
  // Checks (shortcut conflicts) and saves; false with *error.
  bool apply(QString* error);
  void accept() override;
  // Fills the device list from SDL, keeping the choice.
  void refreshDevices();
  // A 440 Hz tone of 0.6 s on the chosen device.
  bool playTestTone(QString* error);

 private:
  void showCacheSize();

  MainWindow* window_;
  QComboBox* device_;
  QCheckBox* renderFirst_;
  QSpinBox* threads_;
  QLabel* cacheSize_;
  QSpinBox* logLevel_;
  QLineEdit* logFile_;
  QComboBox* noteLength_;
  QComboBox* grid_;
  QTableWidget* shortcuts_;
};
