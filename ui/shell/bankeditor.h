// BankEditor: a window over one voice bank's entries, to tune their
// timing by eye and by ear.
//
// The table lists every entry (sortable, filtered by alias or file, with
// a mark where the sample or its frequency table is missing); the chosen
// entry's sample is drawn with its markers, dragged or typed; the entry
// plays as it is cut, or rendered through the resampler at a note. Edits
// are undoable in the window. Saving writes the bank's "oto_ini.txt"
// (never its oto.ini files) to a temporary name and renames it, then
// reloads the bank in every open project that sings with it.
#pragma once

#include <QAbstractTableModel>
#include <QMainWindow>
#include <memory>

#include "voicebank/voiceset.h"

class QDoubleSpinBox;
class QComboBox;
class QLineEdit;
class QSortFilterProxyModel;
class QTableView;
class QUndoStack;
class WaveView;

// The entries of a voice set as table rows.
class EntryModel : public QAbstractTableModel {
  Q_OBJECT

 public:
  enum Column { kStatus, kFile, kAlias, kOffset, kFixed, kBlank, kPreutterance, kOverlap, kColumns };
  EntryModel(cvoiceset* set, const QString& folder, QObject* parent = nullptr);
  int rowCount(const QModelIndex& parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  // What is missing for row r: "" when nothing.
  QString missing(int row) const;
  // After the entry of row r changed.
  void rowChanged(int row);
  // A text of the bank (converted to UTF-8 when the bank was read).
  QString text(const char* bytes) const;

 private:
  cvoiceset* set_;
  QString folder_;
  std::vector<QString> missing_;
};

class BankEditor : public QMainWindow {
  Q_OBJECT

 public:
  explicit BankEditor(QWidget* parent = nullptr);
  ~BankEditor() override;

  // Loads the bank; false with *error when it has no entries.
  bool open(const QString& folder, QString* error);
  QString folder() const { return folder_; }
  cvoiceset& voiceSet() { return *set_; }
  EntryModel* model() const { return model_; }
  QSortFilterProxyModel* proxy() const { return proxy_; }
  QTableView* table() const { return table_; }
  WaveView* waveView() const { return wave_; }
  QUndoStack* undoStack() const { return undo_; }
  QLineEdit* filter() const { return filter_; }
  // The chosen entry (row in the voice set), -1 when none.
  int current() const { return current_; }
  void choose(int row);
  // Sets the chosen entry's fields as one undoable step.
  void changeEntry(int row, const VoiceData& before, const VoiceData& after);
  // The spin box of one field ("offset", "fixed", "blank", "preuttr", "overlap").
  QDoubleSpinBox* field(const QString& name) const;
  // Writes oto_ini.txt and reloads the projects singing with the bank.
  bool save(QString* error);
  // The chosen entry's samples: as cut, or rendered at note `noteNum`.
  std::vector<int16_t> cutSamples() const;
  std::vector<int16_t> renderedSamples(int noteNum, QString* error) const;

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void showEntry();
  void fieldEdited();

  std::unique_ptr<cvoiceset> set_;
  QString folder_;
  EntryModel* model_ = nullptr;
  QSortFilterProxyModel* proxy_;
  QTableView* table_;
  QLineEdit* filter_;
  WaveView* wave_;
  QUndoStack* undo_;
  QDoubleSpinBox* fields_[5] = {};
  QComboBox* note_;
  int current_ = -1;
  bool showing_ = false;
};
