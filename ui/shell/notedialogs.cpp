#include "ui/shell/notedialogs.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QTableWidget>
#include <QVBoxLayout>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "editing/undoman.h"
#include "engine/ranges.h"
#include "support/textcopy.h"
#include "ui/shell/dialogbuttons.h"
#include "ui/shell/document.h"
#include "voicebank/voiceset.h"

namespace {

QString number(double value) { return QString::number(value, 'g', 6); }

// A whole number in [low, high] from the text.
bool readInt(const QString& text, int low, int high, int* out, QString* why) {
  bool ok = false;
  const int value = text.trimmed().toInt(&ok);
  if (!ok || value < low || value > high) {
    *why = QObject::tr("a whole number from %1 to %2").arg(low).arg(high);
    return false;
  }
  *out = value;
  return true;
}

bool readFloat(const QString& text, double low, double high, float* out, QString* why) {
  bool ok = false;
  const double value = text.trimmed().toDouble(&ok);
  if (!ok || !std::isfinite(value) || value < low || value > high) {
    *why = QObject::tr("a number from %1 to %2").arg(low).arg(high);
    return false;
  }
  *out = static_cast<float>(value);
  return true;
}

// The same within one of the ranges the readers hold values to.
bool readInt(const QString& text, const ValueRange& range, int* out, QString* why) {
  return readInt(text, static_cast<int>(range.low), static_cast<int>(range.high), out, why);
}
bool readFloat(const QString& text, const ValueRange& range, float* out, QString* why) {
  return readFloat(text, range.low, range.high, out, why);
}

// A text field of a fixed size.
bool readText(const QString& text, char* field, size_t size, QString* why) {
  const QByteArray bytes = text.toUtf8();
  if (static_cast<size_t>(bytes.size()) >= size) {
    *why = QObject::tr("at most %1 bytes").arg(size - 1);
    return false;
  }
  strcpy_n(field, bytes.constData(), size);
  return true;
}

const char* const kNotSet = "not set";

std::vector<NotePropertiesDialog::Field> propertyFields() {
  using F = NotePropertiesDialog::Field;
  return {
      F{"lyric", QObject::tr("Lyric"), [](const NoteData& n) { return QString::fromUtf8(n.Lyric); },
        [](const QString& t, NoteData& n, QString* why) {
          return readText(t.trimmed(), n.Lyric, sizeof n.Lyric, why);
        }},
      F{"note", QObject::tr("Note (C4 or 60)"), [](const NoteData& n) { return QString::number(n.NoteNum); },
        [](const QString& t, NoteData& n, QString* why) {
          int value = 0;
          const QByteArray name = t.trimmed().toUtf8();
          const int named =
              name.isEmpty() || (name[0] >= '0' && name[0] <= '9') ? -1 : cvoiceset::name2num(name.constData());
          if (named >= CNoteMan::kMinNote && named <= CNoteMan::kMaxNote) {
            value = named;
          } else if (!readInt(t, CNoteMan::kMinNote, CNoteMan::kMaxNote, &value, why)) {
            return false;
          }
          n.NoteNum = static_cast<int16_t>(value);
          return true;
        }},
      F{"length", QObject::tr("Length (ticks)"), [](const NoteData& n) { return QString::number(n.Length); },
        [](const QString& t, NoteData& n, QString* why) {
          return readInt(t, CNoteMan::kMinLength, CNoteMan::kMaxLength, &n.Length, why);
        }},
      F{"intensity", QObject::tr("Intensity (%)"), [](const NoteData& n) { return QString::number(n.Intensity); },
        [](const QString& t, NoteData& n, QString* why) { return readInt(t, ranges::kIntensity, &n.Intensity, why); }},
      F{"modulation", QObject::tr("Modulation (%)"), [](const NoteData& n) { return QString::number(n.Modulation); },
        [](const QString& t, NoteData& n, QString* why) { return readInt(t, ranges::kModulation, &n.Modulation, why); }},
      F{"velocity", QObject::tr("Consonant speed (%)"), [](const NoteData& n) { return number(n.Velocity); },
        [](const QString& t, NoteData& n, QString* why) { return readFloat(t, ranges::kVelocity, &n.Velocity, why); }},
      F{"preutterance", QObject::tr("Pre-utterance (ms)"),
        [](const NoteData& n) { return std::isnan(n.PreUtterance) ? QString(kNotSet) : number(n.PreUtterance); },
        [](const QString& t, NoteData& n, QString* why) {
          if (t.trimmed() == kNotSet) return n.PreUtterance = std::nanf(""), true;
          return readFloat(t, ranges::kPreUtterance, &n.PreUtterance, why);
        }},
      F{"overlap", QObject::tr("Overlap (ms)"),
        [](const NoteData& n) { return std::isnan(n.VoiceOverlap) ? QString(kNotSet) : number(n.VoiceOverlap); },
        [](const QString& t, NoteData& n, QString* why) {
          if (t.trimmed() == kNotSet) return n.VoiceOverlap = std::nanf(""), true;
          return readFloat(t, ranges::kVoiceOverlap, &n.VoiceOverlap, why);
        }},
      F{"startpoint", QObject::tr("Start point (ms)"), [](const NoteData& n) { return number(n.StartPoint); },
        [](const QString& t, NoteData& n, QString* why) { return readFloat(t, ranges::kStartPoint, &n.StartPoint, why); }},
      F{"flags", QObject::tr("Flags"), [](const NoteData& n) { return QString::fromUtf8(n.Flags); },
        [](const QString& t, NoteData& n, QString* why) {
          return readText(t.trimmed(), n.Flags, sizeof n.Flags, why);
        }},
      F{"tempo", QObject::tr("Tempo change"),
        [](const NoteData& n) { return n.Tempo > 0.0f ? number(n.Tempo) : QString("none"); },
        [](const QString& t, NoteData& n, QString* why) {
          if (t.trimmed() == "none") return n.Tempo = 0.0f, true;
          return readFloat(t, ranges::kTempo, &n.Tempo, why);
        }},
  };
}

}  // namespace

// --- Properties ---------------------------------------------------------------------

NotePropertiesDialog::NotePropertiesDialog(EditorDocument* document, QWidget* parent)
    : QDialog(parent), document_(document), fields_(propertyFields()) {
  setWindowTitle(tr("Note Properties"));
  auto* form = new QFormLayout(this);
  const ctonm2& engine = document_->engine();
  const int count = document_->notes().getSelectCount();
  form->addRow(new QLabel(
      tr("%n selected note(s). Blank fields differ between the notes and stay as they are.", nullptr, count)));
  for (const Field& f : fields_) {
    QString shared;
    bool first = true, same = true;
    for (int32_t i = 0; i < engine.noteCount && same; ++i) {
      if (engine.notes[i].selected == 0) continue;
      const QString value = f.get(engine.notes[i]);
      if (first) {
        shared = value;
        first = false;
      } else if (value != shared) {
        same = false;
      }
    }
    auto* edit = new QLineEdit(same ? shared : QString(), this);
    edit->setObjectName(f.key);
    if (!same) edit->setPlaceholderText(tr("(differs)"));
    if (f.key == "preutterance" || f.key == "overlap") edit->setToolTip(tr("\"not set\": the voice bank's value"));
    if (f.key == "tempo") edit->setToolTip(tr("\"none\": no tempo change on this note"));
    form->addRow(f.label, edit);
    editors_.push_back(edit);
    initial_.push_back(edit->text());
  }
  auto* buttons = dialogButtons(this);
  form->addRow(buttons);
}

QLineEdit* NotePropertiesDialog::field(const QString& key) const {
  for (size_t k = 0; k < fields_.size(); ++k) {
    if (fields_[k].key == key) return editors_[k];
  }
  return nullptr;
}

bool NotePropertiesDialog::apply(QString* error) {
  // Every changed field is checked on a scratch note before anything is stored.
  NoteData scratch;
  memset(&scratch, 0, sizeof scratch);
  std::vector<size_t> changed;
  for (size_t k = 0; k < fields_.size(); ++k) {
    if (editors_[k]->text() == initial_[k]) continue;
    QString why;
    if (!fields_[k].set(editors_[k]->text(), scratch, &why)) {
      *error = tr("%1: \"%2\" is not %3").arg(fields_[k].label, editors_[k]->text(), why);
      return false;
    }
    changed.push_back(k);
  }
  if (changed.empty()) return true;
  document_->beginEdit(undo::kSet);
  ctonm2& engine = document_->engine();
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    if (engine.notes[i].selected == 0) continue;
    QString why;
    for (size_t k : changed) fields_[k].set(editors_[k]->text(), engine.notes[i], &why);
  }
  document_->endEdit(undo::kSet);
  return true;
}

void NotePropertiesDialog::accept() {
  QString error;
  if (!apply(&error)) {
    QMessageBox::warning(this, tr("Note Properties"), error);
    return;
  }
  QDialog::accept();
}

// --- Details -----------------------------------------------------------------------

namespace {

const char* const kVibratoNames[10] = {"Length (%)", "Cycle (ms)", "Depth (cents)",  "Fade in (%)", "Fade out (%)",
                                       "Phase (%)",  "Height (%)", "Expression (%)", "Drift (%)",   "Reserved"};
// Slots of the envelope as the dialog lays them out: durations, then levels.
const int kEnvelopeDurations[7] = {0, 1, 9, 12, 14, 2, 8};
const int kEnvelopeLevels[7] = {3, 4, 10, 13, 15, 5, 6};
const char* const kEnvelopePointNames[7] = {"1", "2", "5", "6", "7", "3", "4"};

QString shapeName(uint8_t code) {
  switch (code) {
    case 's':
      return "linear";
    case 'r':
      return "R";
    case 'j':
      return "J";
    default:
      return "S";
  }
}

uint8_t shapeCode(const QString& name) {
  if (name == "linear") return 's';
  if (name == "R") return 'r';
  if (name == "J") return 'j';
  return 0;
}

float* newFloatList(const std::vector<float>& values) {
  auto* list = static_cast<float*>(malloc(sizeof(float) * (values.size() + 1)));
  if (list == nullptr) return nullptr;
  list[0] = static_cast<float>(values.size());
  for (size_t k = 0; k < values.size(); ++k) list[k + 1] = values[k];
  return list;
}

}  // namespace

NoteDetailDialog::NoteDetailDialog(EditorDocument* document, int index, QWidget* parent)
    : QDialog(parent), document_(document), index_(index) {
  const NoteData& note = *document_->notes().getNote(index);
  setWindowTitle(tr("Note Details: %1").arg(QString::fromUtf8(note.Lyric)));
  auto* layout = new QVBoxLayout(this);

  auto* pitchBox = new QGroupBox(tr("Pitch line"), this);
  auto* pitchLayout = new QVBoxLayout(pitchBox);
  auto* startRow = new QHBoxLayout;
  startTime_ = new QDoubleSpinBox(pitchBox);
  startTime_->setObjectName("pitchStart");
  startTime_->setRange(ranges::kPitchStart.low, ranges::kPitchStart.high);
  startTime_->setSuffix(" ms");
  startTime_->setValue(floatListCount(note.PBS) >= 1 ? note.PBS[1] : -40.0);
  hasStartHeight_ = new QCheckBox(tr("start height"), pitchBox);
  startHeight_ = new QDoubleSpinBox(pitchBox);
  startHeight_->setRange(ranges::kPitchHeight.low * 10.0, ranges::kPitchHeight.high * 10.0);
  startHeight_->setSuffix(" cents");
  hasStartHeight_->setChecked(floatListCount(note.PBS) >= 2);
  startHeight_->setValue(floatListCount(note.PBS) >= 2 ? note.PBS[2] * 10.0 : 0.0);
  startRow->addWidget(new QLabel(tr("Starts at"), pitchBox));
  startRow->addWidget(startTime_);
  startRow->addWidget(hasStartHeight_);
  startRow->addWidget(startHeight_);
  pitchLayout->addLayout(startRow);
  pitch_ = new QTableWidget(0, 3, pitchBox);
  pitch_->setObjectName("pitchPoints");
  pitch_->setHorizontalHeaderLabels({tr("Width (ms)"), tr("Height (cents)"), tr("Shape")});
  pitch_->horizontalHeader()->setStretchLastSection(true);
  const int n = floatListCount(note.PBW);
  for (int k = 1; k <= n; ++k) {
    const int row = pitch_->rowCount();
    pitch_->insertRow(row);
    pitch_->setItem(row, 0, new QTableWidgetItem(number(note.PBW[k])));
    const bool hasHeight = k < n && k <= floatListCount(note.PBY);
    pitch_->setItem(row, 1, new QTableWidgetItem(hasHeight ? number(note.PBY[k] * 10.0) : QString(k < n ? "0" : "")));
    if (k == n) pitch_->item(row, 1)->setFlags(Qt::ItemIsEnabled);  // the last point is at the note's pitch
    auto* shape = new QComboBox(pitch_);
    shape->addItems({"S", "linear", "R", "J"});
    shape->setCurrentText(shapeName(k <= byteListCount(note.PBM) ? note.PBM[k] : 0));
    pitch_->setCellWidget(row, 2, shape);
  }
  pitchLayout->addWidget(pitch_);
  layout->addWidget(pitchBox);

  auto* vibratoBox = new QGroupBox(tr("Vibrato"), this);
  auto* vibratoGrid = new QGridLayout(vibratoBox);
  for (int slot = 0; slot < 10; ++slot) {
    vibrato_[slot] = new QSpinBox(vibratoBox);
    vibrato_[slot]->setObjectName(QString("vibrato%1").arg(slot));
    vibrato_[slot]->setRange(static_cast<int>(ranges::kVibrato[slot].low), static_cast<int>(ranges::kVibrato[slot].high));
    vibrato_[slot]->setValue(note.VBR[slot]);
    vibratoGrid->addWidget(new QLabel(tr(kVibratoNames[slot]), vibratoBox), slot / 5 * 2, slot % 5);
    vibratoGrid->addWidget(vibrato_[slot], slot / 5 * 2 + 1, slot % 5);
  }
  layout->addWidget(vibratoBox);

  auto* envelopeBox = new QGroupBox(tr("Envelope"), this);
  auto* envelopeGrid = new QGridLayout(envelopeBox);
  envelopeGrid->addWidget(new QLabel(tr("point"), envelopeBox), 0, 0);
  envelopeGrid->addWidget(new QLabel(tr("duration (ms)"), envelopeBox), 1, 0);
  envelopeGrid->addWidget(new QLabel(tr("level (%)"), envelopeBox), 2, 0);
  for (int k = 0; k < 7; ++k) {
    envelopeGrid->addWidget(new QLabel(kEnvelopePointNames[k], envelopeBox), 0, k + 1);
    for (int row = 0; row < 2; ++row) {
      const int slot = row == 0 ? kEnvelopeDurations[k] : kEnvelopeLevels[k];
      auto* spin = new QDoubleSpinBox(envelopeBox);
      spin->setObjectName(QString("envelope%1").arg(slot));
      spin->setRange(0, row == 0 ? ranges::kEnvelopeTime.high : ranges::kEnvelopeLevel.high);
      spin->setDecimals(1);
      spin->setValue(note.Envelope[slot]);
      envelope_[slot] = spin;
      envelopeGrid->addWidget(spin, row + 1, k + 1);
    }
  }
  extended_ = new QCheckBox(tr("points 6 and 7 in use"), envelopeBox);
  extended_->setChecked(note.Envelope[11] != 0.0f);
  envelopeGrid->addWidget(extended_, 3, 0, 1, 8);
  layout->addWidget(envelopeBox);

  auto* buttons = dialogButtons(this);
  layout->addWidget(buttons);
}

void NoteDetailDialog::apply() {
  NoteData* note = document_->notes().getNote(index_);
  if (note == nullptr) return;
  std::vector<float> widths, heights;
  std::vector<uint8_t> shapes;
  const int rows = pitch_->rowCount();
  // A cell that holds no finite number ("nan" and "inf" read as numbers) counts as 0.
  auto cell = [this](int row, int column) {
    const float value = pitch_->item(row, column) != nullptr ? pitch_->item(row, column)->text().toFloat() : 0.0f;
    return std::isfinite(value) ? value : 0.0f;
  };
  for (int row = 0; row < rows; ++row) {
    widths.push_back(std::max(0.0f, cell(row, 0)));
    if (row + 1 < rows) heights.push_back(cell(row, 1) / 10.0f);
    shapes.push_back(shapeCode(static_cast<QComboBox*>(pitch_->cellWidget(row, 2))->currentText()));
  }
  document_->beginNoteEdit(index_, undo::kSet);
  note = document_->notes().getNote(index_);
  if (rows > 0) {
    std::vector<float> start = {static_cast<float>(startTime_->value())};
    if (hasStartHeight_->isChecked()) start.push_back(static_cast<float>(startHeight_->value() / 10.0));
    free(note->PBS);
    note->PBS = newFloatList(start);
    free(note->PBW);
    note->PBW = newFloatList(widths);
    free(note->PBY);
    note->PBY = newFloatList(heights);
    free(note->PBM);
    note->PBM = static_cast<uint8_t*>(malloc(shapes.size() + 1));
    if (note->PBM != nullptr) {
      note->PBM[0] = static_cast<uint8_t>(shapes.size());
      memcpy(note->PBM + 1, shapes.data(), shapes.size());
    }
  }
  for (int slot = 0; slot < 10; ++slot) note->VBR[slot] = static_cast<int16_t>(vibrato_[slot]->value());
  for (int slot = 0; slot < 16; ++slot) {
    if (envelope_[slot] != nullptr) note->Envelope[slot] = static_cast<float>(envelope_[slot]->value());
  }
  note->Envelope[11] = extended_->isChecked() ? 1.0f : 0.0f;
  document_->endNoteEdit(index_, undo::kSet);
}

void NoteDetailDialog::accept() {
  apply();
  QDialog::accept();
}

// --- Assistant -----------------------------------------------------------------------

AssistantDialog::AssistantDialog(EditorDocument* document, QWidget* parent) : QDialog(parent), document_(document) {
  setWindowTitle(tr("Pitch and Vibrato Assistant"));
  auto* form = new QFormLayout(this);
  form->addRow(new QLabel(tr("Gives the selected notes the default pitch line and a vibrato.")));
  auto spin = [this](const char* name, int low, int high, int value, const QString& suffix) {
    auto* box = new QSpinBox(this);
    box->setObjectName(name);
    box->setRange(low, high);
    box->setValue(value);
    box->setSuffix(suffix);
    return box;
  };
  depth_ = spin("depth", 0, 400, 40, " cents");
  cycle_ = spin("cycle", 50, 1000, 185, " ms");
  share_ = spin("share", 0, 100, 70, " %");
  shortest_ = spin("shortest", 0, 7680, 480, " ticks");
  pitchLines_ = new QCheckBox(tr("Default pitch line too"), this);
  pitchLines_->setChecked(true);
  form->addRow(tr("Vibrato depth"), depth_);
  form->addRow(tr("Vibrato cycle"), cycle_);
  form->addRow(tr("Vibrato length (share of the note)"), share_);
  form->addRow(tr("Skip notes shorter than"), shortest_);
  form->addRow(pitchLines_);
  auto* buttons = dialogButtons(this);
  form->addRow(buttons);
}

int AssistantDialog::apply() {
  CNoteMan& notes = document_->notes();
  if (notes.getSelectCount() == 0) return 0;
  document_->beginEdit(undo::kSet);
  ctonm2& engine = document_->engine();
  int changed = 0;
  for (int32_t i = 0; i < engine.noteCount; ++i) {
    NoteData& note = engine.notes[i];
    if (note.selected == 0 || ctonm2::is_r(note.Lyric) || note.Length < shortest_->value()) continue;
    if (pitchLines_->isChecked()) notes.defaultPitch(i);
    notes.defaultVibrato(i);
    engine.notes[i].VBR[0] = static_cast<int16_t>(share_->value());
    engine.notes[i].VBR[1] = static_cast<int16_t>(cycle_->value());
    engine.notes[i].VBR[2] = static_cast<int16_t>(depth_->value());
    ++changed;
  }
  document_->endEdit(undo::kSet);
  return changed;
}

void AssistantDialog::accept() {
  apply();
  QDialog::accept();
}
