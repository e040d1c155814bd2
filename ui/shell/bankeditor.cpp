#include "ui/shell/bankeditor.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QSplitter>
#include <QStatusBar>
#include <QTableView>
#include <QUndoStack>
#include <QVBoxLayout>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "render/resampler.h"
#include "support/safe_output.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/player.h"
#include "ui/views/waveview.h"
#include "voicebank/connective.h"
#include "voicebank/freqtable.h"

// --- The table ------------------------------------------------------------------------

EntryModel::EntryModel(cvoiceset* set, const QString& folder, QObject* parent)
    : QAbstractTableModel(parent), set_(set), folder_(folder) {
  missing_.resize(static_cast<size_t>(set_->count()));
  for (int row = 0; row < set_->count(); ++row) {
    const QString sample = folder_ + text(set_->get_filename(row));
    QString why;
    if (!QFileInfo::exists(sample)) {
      why = tr("sample missing");
    } else if (!QFileInfo::exists(
                   QString::fromStdString(frequencyTablePath(sample.toLocal8Bit().constData(), "frq")))) {
      why = tr("no frequency table");
    }
    missing_[static_cast<size_t>(row)] = why;
  }
}

QString EntryModel::text(const char* bytes) const { return bytes != nullptr ? QString::fromUtf8(bytes) : QString(); }

int EntryModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : set_->count(); }
int EntryModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : kColumns; }

QString EntryModel::missing(int row) const {
  return row >= 0 && static_cast<size_t>(row) < missing_.size() ? missing_[static_cast<size_t>(row)] : QString();
}

QVariant EntryModel::data(const QModelIndex& index, int role) const {
  const VoiceData* e = set_->getVoiceEntry(index.row());
  if (e == nullptr) return QVariant();
  if (role == Qt::ToolTipRole && index.column() == kStatus) return missing(index.row());
  if (role == Qt::TextAlignmentRole && index.column() >= kOffset) return int(Qt::AlignRight | Qt::AlignVCenter);
  if (role != Qt::DisplayRole && role != Qt::EditRole) return QVariant();
  switch (index.column()) {
    case kStatus:
      return missing(index.row()).isEmpty() ? QString() : QString("!");
    case kFile:
      return text(e->filename);
    case kAlias:
      return text(e->alias);
    // Numbers as numbers, so that sorting is numeric.
    case kOffset:
      return static_cast<double>(e->offset);
    case kFixed:
      return static_cast<double>(e->fixed);
    case kBlank:
      return static_cast<double>(e->blank);
    case kPreutterance:
      return static_cast<double>(e->preuttr);
    case kOverlap:
      return static_cast<double>(e->overlap);
    default:
      return QVariant();
  }
}

QVariant EntryModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return QVariant();
  static const char* const kNames[kColumns] = {"",      "File",  "Alias",         "Offset",
                                               "Fixed", "Blank", "Pre-utterance", "Overlap"};
  return tr(kNames[section]);
}

void EntryModel::rowChanged(int row) { emit dataChanged(index(row, 0), index(row, kColumns - 1)); }

// --- Undo -------------------------------------------------------------------------------

namespace {

class EntryCommand : public QUndoCommand {
 public:
  EntryCommand(BankEditor* editor, int row, const VoiceData& before, const VoiceData& after)
      : QUndoCommand(QObject::tr("Change Entry")), editor_(editor), row_(row), before_(before), after_(after) {}
  void undo() override { put(before_); }
  void redo() override { put(after_); }

 private:
  void put(const VoiceData& value) {
    VoiceData* e = editor_->voiceSet().getVoiceEntry(row_);
    if (e == nullptr) return;
    *e = value;
    editor_->voiceSet().entriesChanged();
    editor_->model()->rowChanged(row_);
    if (editor_->current() == row_) editor_->choose(row_);
  }
  BankEditor* editor_;
  int row_;
  VoiceData before_, after_;
};

const char* const kFieldNames[5] = {"offset", "fixed", "blank", "preuttr", "overlap"};

float* fieldOf(VoiceData& e, int k) {
  switch (k) {
    case 0:
      return &e.offset;
    case 1:
      return &e.fixed;
    case 2:
      return &e.blank;
    case 3:
      return &e.preuttr;
    default:
      return &e.overlap;
  }
}

}  // namespace

// --- The window -------------------------------------------------------------------------

BankEditor::BankEditor(QWidget* parent) : QMainWindow(parent), set_(std::make_unique<cvoiceset>()) {
  setAttribute(Qt::WA_DeleteOnClose);
  undo_ = new QUndoStack(this);
  proxy_ = new QSortFilterProxyModel(this);
  proxy_->setFilterCaseSensitivity(Qt::CaseInsensitive);
  proxy_->setFilterKeyColumn(-1);
  proxy_->setSortRole(Qt::EditRole);

  auto* central = new QSplitter(Qt::Vertical, this);
  auto* top = new QWidget(central);
  auto* topLayout = new QVBoxLayout(top);
  filter_ = new QLineEdit(top);
  filter_->setObjectName("filter");
  filter_->setPlaceholderText(tr("Filter by alias or file"));
  filter_->setClearButtonEnabled(true);
  connect(filter_, &QLineEdit::textChanged, proxy_, &QSortFilterProxyModel::setFilterFixedString);
  topLayout->addWidget(filter_);
  table_ = new QTableView(top);
  table_->setModel(proxy_);
  table_->setSortingEnabled(true);
  table_->setSelectionBehavior(QAbstractItemView::SelectRows);
  table_->setSelectionMode(QAbstractItemView::SingleSelection);
  table_->verticalHeader()->setDefaultSectionSize(20);
  table_->verticalHeader()->hide();
  table_->horizontalHeader()->setStretchLastSection(false);
  topLayout->addWidget(table_);

  auto* bottom = new QWidget(central);
  auto* bottomLayout = new QVBoxLayout(bottom);
  auto* row = new QHBoxLayout;
  const QString labels[5] = {tr("Offset"), tr("Fixed"), tr("Blank"), tr("Pre-utterance"), tr("Overlap")};
  for (int k = 0; k < 5; ++k) {
    fields_[k] = new QDoubleSpinBox(bottom);
    fields_[k]->setObjectName(kFieldNames[k]);
    fields_[k]->setDecimals(1);
    fields_[k]->setSuffix(" ms");
    fields_[k]->setRange(k == 0 || k == 1 ? 0.0 : -100000.0, 100000.0);
    fields_[k]->setKeyboardTracking(false);
    connect(fields_[k], &QDoubleSpinBox::valueChanged, this, &BankEditor::fieldEdited);
    row->addWidget(new QLabel(labels[k], bottom));
    row->addWidget(fields_[k]);
  }
  row->addStretch();
  auto* playCut = new QPushButton(tr("Play as Cut"), bottom);
  playCut->setObjectName("playCut");
  note_ = new QComboBox(bottom);
  static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  for (int n = 36; n <= 84; ++n) note_->addItem(QString("%1%2").arg(kNames[n % 12]).arg(n / 12 - 1), n);
  note_->setCurrentIndex(60 - 36);
  auto* playNote = new QPushButton(tr("Play at Note"), bottom);
  playNote->setObjectName("playNote");
  row->addWidget(playCut);
  row->addWidget(note_);
  row->addWidget(playNote);
  bottomLayout->addLayout(row);
  wave_ = new WaveView(bottom);
  bottomLayout->addWidget(wave_, 1);
  central->addWidget(top);
  central->addWidget(bottom);
  central->setStretchFactor(0, 2);
  central->setStretchFactor(1, 3);
  setCentralWidget(central);

  connect(table_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this](const QModelIndex& index) {
    if (index.isValid()) choose(proxy_->mapToSource(index).row());
  });
  connect(wave_, &WaveView::entryDragged, this, [this](const VoiceData& e) {
    showing_ = true;
    for (int k = 0; k < 5; ++k) fields_[k]->setValue(*fieldOf(const_cast<VoiceData&>(e), k));
    showing_ = false;
  });
  connect(wave_, &WaveView::entryDropped, this,
          [this](const VoiceData& before, const VoiceData& after) { changeEntry(current_, before, after); });
  connect(playCut, &QPushButton::clicked, this, [this] {
    QString error;
    if (!Player::instance().playClip(cutSamples(), &error)) statusBar()->showMessage(error);
  });
  connect(playNote, &QPushButton::clicked, this, [this] {
    QString error;
    const std::vector<int16_t> samples = renderedSamples(note_->currentData().toInt(), &error);
    if (samples.empty() || !Player::instance().playClip(samples, &error)) statusBar()->showMessage(error);
  });

  QMenu* file = menuBar()->addMenu(tr("&File"));
  QAction* saveAction = file->addAction(tr("&Save oto_ini.txt"), this, [this] {
    QString error;
    if (!save(&error)) QMessageBox::warning(this, tr("Cannot save"), error);
  });
  saveAction->setShortcut(QKeySequence::Save);
  file->addAction(tr("&Close"), QKeySequence::Close, this, &QWidget::close);
  QMenu* edit = menuBar()->addMenu(tr("&Edit"));
  QAction* undoAction = undo_->createUndoAction(this, tr("Undo"));
  undoAction->setShortcut(QKeySequence::Undo);
  QAction* redoAction = undo_->createRedoAction(this, tr("Redo"));
  redoAction->setShortcuts({QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), QKeySequence(Qt::CTRL | Qt::Key_Y)});
  edit->addAction(undoAction);
  edit->addAction(redoAction);
  connect(undo_, &QUndoStack::cleanChanged, this, [this](bool clean) { setWindowModified(!clean); });
  resize(1000, 720);
}

BankEditor::~BankEditor() {
  // The table reads the voice set until it goes: it goes first.
  proxy_->setSourceModel(nullptr);
  delete model_;
  model_ = nullptr;
}

bool BankEditor::open(const QString& folder, QString* error) {
  folder_ = folder.endsWith('/') ? folder : folder + "/";
  if (set_->read_voiceset(folder_.toLocal8Bit().constData()) < 1 || set_->count() == 0) {
    *error = tr("No voice bank entries at %1").arg(folder_);
    return false;
  }
  // Texts as UTF-8 from here on; oto_ini.txt is written in UTF-8.
  convertVoicesetTexts(set_.get());
  model_ = new EntryModel(set_.get(), folder_, this);
  proxy_->setSourceModel(model_);
  table_->resizeColumnsToContents();
  table_->horizontalHeader()->setSectionResizeMode(EntryModel::kFile, QHeaderView::Stretch);
  table_->setColumnWidth(EntryModel::kAlias, std::max(table_->columnWidth(EntryModel::kAlias), 140));
  setWindowTitle(tr("%1[*] — Voice Bank Entries").arg(QFileInfo(folder_.chopped(1)).fileName()));
  statusBar()->showMessage(tr("%n entries", nullptr, set_->count()));
  undo_->clear();
  table_->selectRow(0);
  choose(proxy_->mapToSource(proxy_->index(0, 0)).row());
  return true;
}

void BankEditor::choose(int row) {
  if (set_->getVoiceEntry(row) == nullptr) return;
  current_ = row;
  showEntry();
}

void BankEditor::showEntry() {
  VoiceData* e = set_->getVoiceEntry(current_);
  if (e == nullptr) return;
  wave_->setSample(folder_ + model_->text(e->filename));
  wave_->setEntry(*e);
  showing_ = true;
  for (int k = 0; k < 5; ++k) fields_[k]->setValue(*fieldOf(*e, k));
  showing_ = false;
  const QString missing = model_->missing(current_);
  statusBar()->showMessage(missing.isEmpty() ? model_->text(e->alias) : model_->text(e->alias) + " — " + missing);
}

void BankEditor::fieldEdited() {
  if (showing_) return;
  VoiceData* e = set_->getVoiceEntry(current_);
  if (e == nullptr) return;
  VoiceData after = *e;
  for (int k = 0; k < 5; ++k) *fieldOf(after, k) = static_cast<float>(fields_[k]->value());
  // Bounded by the sample: the offset and the cut-off stay inside it.
  if (const SamplePicture* picture = wave_->picture()) {
    after.offset = std::min(after.offset, static_cast<float>(picture->lengthMs));
    if (after.blank >= 0) after.blank = std::min(after.blank, static_cast<float>(picture->lengthMs - after.offset));
  }
  if (memcmp(&after, e, sizeof after) != 0) changeEntry(current_, *e, after);
}

QDoubleSpinBox* BankEditor::field(const QString& name) const {
  for (int k = 0; k < 5; ++k) {
    if (name == kFieldNames[k]) return fields_[k];
  }
  return nullptr;
}

void BankEditor::changeEntry(int row, const VoiceData& before, const VoiceData& after) {
  if (set_->getVoiceEntry(row) == nullptr) return;
  undo_->push(new EntryCommand(this, row, before, after));
}

bool BankEditor::save(QString* error) {
  const std::string target = (folder_ + "oto_ini.txt").toLocal8Bit().toStdString();
  errno = 0;
  SafeOutput out(target);
  if (out.path().empty() || set_->wrtie_otoinitxt(out.path().c_str()) != set_->count() || !out.commit()) {
    *error = tr("Cannot write %1: %2")
                 .arg(QString::fromStdString(target), QString::fromLocal8Bit(strerror(errno != 0 ? errno : EIO)));
    return false;
  }
  undo_->setClean();
  // Every open project that sings with this bank reads it again.
  int reloaded = 0;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    auto* window = qobject_cast<MainWindow*>(widget);
    if (window == nullptr || QDir(window->document()->voiceFolder()) != QDir(folder_)) continue;
    Player::instance().stop();
    window->document()->model().changeVoiceSet(nullptr, false);
    window->document()->touch();
    ++reloaded;
  }
  statusBar()->showMessage(
      tr("Saved %1 (%n project(s) reloaded)", nullptr, reloaded).arg(QString::fromStdString(target)));
  return true;
}

std::vector<int16_t> BankEditor::cutSamples() const {
  std::vector<int16_t> out;
  const SamplePicture* picture = wave_->picture();
  if (picture == nullptr) return out;
  const double from = wave_->markerMs(WaveView::kOffset), to = wave_->markerMs(WaveView::kCutoff);
  const size_t first = static_cast<size_t>(std::max(0.0, from) * picture->rate / 1000.0);
  const size_t last =
      std::min(picture->samples.size(), static_cast<size_t>(std::max(0.0, to) * picture->rate / 1000.0));
  // At 44100 Hz, whatever the sample's own rate (nearest sample).
  const double step = picture->rate / 44100.0;
  for (double at = static_cast<double>(first); at < static_cast<double>(last); at += step) {
    out.push_back(static_cast<int16_t>(std::lround(picture->samples[static_cast<size_t>(at)] * 32767.0)));
  }
  return out;
}

std::vector<int16_t> BankEditor::renderedSamples(int noteNum, QString* error) const {
  std::vector<int16_t> out;
  VoiceData* e = set_->getVoiceEntry(current_);
  if (e == nullptr) return out;
  NoteData note;
  memset(&note, 0, sizeof note);
  note.NoteNum = static_cast<int16_t>(noteNum);
  note.Velocity = 100.0f;
  note.Intensity = 100;
  note.VoiceFile = e->filename;
  const QByteArray path = (folder_ + model_->text(e->filename)).toLocal8Bit();
  init_render(44100);
  int32_t count = 0;
  ResampError why = ResampError::kNone;
  double* samples = resamp(path.constData(), &note, 0.0f, &count, 120.0f, &why);
  if (samples == nullptr) {
    *error = tr("Cannot render this entry: %1").arg(QString::fromUtf8(resampErrorText(why)));
    return out;
  }
  out.resize(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i)
    out[static_cast<size_t>(i)] = static_cast<int16_t>(std::clamp(samples[i], -32768.0, 32767.0));
  free(samples);
  return out;
}

void BankEditor::closeEvent(QCloseEvent* event) {
  if (!undo_->isClean()) {
    const auto answer = QMessageBox::question(this, tr("Save entries?"), tr("The entries have changes. Save them?"),
                                              QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel);
    if (answer == QMessageBox::Cancel) return event->ignore();
    QString error;
    if (answer == QMessageBox::Save && !save(&error)) {
      QMessageBox::warning(this, tr("Cannot save"), error);
      return event->ignore();
    }
  }
  event->accept();
}
