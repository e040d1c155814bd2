// The dialogs that edit notes as numbers: the property dialog (the
// selection's plain fields), the detail dialog (one note's pitch points,
// vibrato and envelope) and the pitch and vibrato assistant. Each OK is one
// "set " step.
#pragma once

#include <QDialog>
#include <QString>
#include <functional>
#include <vector>

class EditorDocument;
class QCheckBox;
class QDoubleSpinBox;
class QLineEdit;
class QSpinBox;
class QTableWidget;
struct NoteData;

// Lyric, note, length, intensity, modulation, consonant velocity,
// pre-utterance and overlap ("not set": the voice bank's value), start
// point, flags and a tempo change ("none"), for every selected note. A
// field whose value differs between the notes starts blank and is left
// alone unless typed into.
class NotePropertiesDialog : public QDialog {
  Q_OBJECT

 public:
  NotePropertiesDialog(EditorDocument* document, QWidget* parent = nullptr);
  // The field's editor by its key ("lyric", "note", "length", ...).
  QLineEdit* field(const QString& key) const;
  // Checks and applies; false (with *error) when a value is out of range.
  bool apply(QString* error);
  void accept() override;

  struct Field {
    QString key;
    QString label;
    std::function<QString(const NoteData&)> get;
    // Stores the text into the note; false when it is not a valid value
    // (*why says the allowed range).
    std::function<bool(const QString&, NoteData&, QString* why)> set;
  };

 private:
  EditorDocument* document_;
  std::vector<Field> fields_;
  std::vector<QLineEdit*> editors_;
  std::vector<QString> initial_;
};

// One note's pitch line (start, then width, height and shape of each
// segment), its ten vibrato values and its envelope.
class NoteDetailDialog : public QDialog {
  Q_OBJECT

 public:
  NoteDetailDialog(EditorDocument* document, int index, QWidget* parent = nullptr);
  QTableWidget* pitchTable() const { return pitch_; }
  QSpinBox* vibrato(int slot) const { return vibrato_[slot]; }
  QDoubleSpinBox* envelope(int slot) const { return envelope_[slot]; }
  void apply();
  void accept() override;

 private:
  EditorDocument* document_;
  int index_;
  QDoubleSpinBox* startTime_;
  QDoubleSpinBox* startHeight_;
  QCheckBox* hasStartHeight_;
  QTableWidget* pitch_;
  QSpinBox* vibrato_[10] = {};
  QDoubleSpinBox* envelope_[16] = {};
  QCheckBox* extended_;
};

// Gives the selected notes the default pitch line and a vibrato sized by
// the user, skipping short notes.
class AssistantDialog : public QDialog {
  Q_OBJECT

 public:
  AssistantDialog(EditorDocument* document, QWidget* parent = nullptr);
  QSpinBox* depth() const { return depth_; }
  QSpinBox* cycle() const { return cycle_; }
  QSpinBox* share() const { return share_; }
  QSpinBox* shortest() const { return shortest_; }
  QCheckBox* pitchLines() const { return pitchLines_; }
  // Applies to the selection; returns the notes changed.
  int apply();
  void accept() override;

 private:
  EditorDocument* document_;
  QSpinBox* depth_;
  QSpinBox* cycle_;
  QSpinBox* share_;
  QSpinBox* shortest_;
  QCheckBox* pitchLines_;
};
