// The dialogs around voice banks: choosing a singer (the banks of the
// user's voice folder and of the singer history, each with its profile),
// analysing a bank's samples, and editing the prefix map of the bank a
// project sings with.
#pragma once

#include <QDialog>
#include <QString>
#include <QStringList>

class EditorDocument;
class QLabel;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QTableWidget;

// The bank folders (each ending in "/") found in the per-user voice folder
// and in the singer history, each once, history first.
QStringList knownVoiceBanks();

// Makes the frequency tables of every sample of the bank on all cores,
// with a progress dialog that can be cancelled. Returns the samples that
// could not be analysed, each with its reason; *cancelled tells a stop.
QStringList analyzeBank(QWidget* parent, const QString& folder, bool* cancelled = nullptr);

class SingerDialog : public QDialog {
  Q_OBJECT

 public:
  SingerDialog(EditorDocument* document, QWidget* parent = nullptr);
  QListWidget* list() const { return list_; }
  // The bank chosen in the list ("" when none), its profile as shown.
  QString chosen() const;
  QString shownName() const;
  // Sings with the chosen bank (the project is marked modified).
  bool singWithChosen(QString* error);
  // Puts a bank folder from elsewhere in the list and chooses it.
  void addFolder(const QString& folder);

 signals:
  void singerChanged(const QString& folder);

 private:
  void showProfile();

  EditorDocument* document_;
  QListWidget* list_;
  QLabel* image_;
  QLabel* name_;
  QPlainTextEdit* profile_;
  QPushButton* sing_;
  QPushButton* analyze_;
  QPushButton* entries_;
};

// A profile's text as shown: without its charset line, the lines of each
// paragraph joined (readme files are wrapped by hand), paragraphs apart.
QString reflowProfile(const QString& text);

// The prefix and suffix of every note from B7 down to C1, of the bank the
// project sings with; saved as "prefixmap" (UTF-8) and "prefix.map"
// (Shift_JIS) in the bank, and read back.
class PrefixMapDialog : public QDialog {
  Q_OBJECT

 public:
  PrefixMapDialog(EditorDocument* document, QWidget* parent = nullptr);
  QTableWidget* table() const { return table_; }
  bool save(QString* error);
  void accept() override;

  static constexpr int kHighest = 107;  // B7
  static constexpr int kLowest = 24;    // C1

 private:
  EditorDocument* document_;
  QTableWidget* table_;
};
