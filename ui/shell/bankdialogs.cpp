#include "ui/shell/bankdialogs.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPixmap>
#include <QPlainTextEdit>
#include <QProgressDialog>
#include <QPushButton>
#include <QSettings>
#include <QTableWidget>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>
#include <atomic>
#include <thread>

#include "app/analysis.h"
#include "support/textcopy.h"
#include "support/userdirs.h"
#include "ui/shell/bankeditor.h"
#include "ui/shell/dialogbuttons.h"
#include "ui/shell/document.h"
#include "ui/shell/mainwindow.h"
#include "voicebank/voiceprofile.h"
#include "voicebank/voiceset.h"

namespace {

bool looksLikeBank(const QDir& dir) {
  if (dir.exists("oto.ini") || dir.exists("oto_ini.txt")) return true;
  for (const QString& sub : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
    if (QFileInfo::exists(dir.filePath(sub + "/oto.ini"))) return true;
  }
  return false;
}

QString asFolder(const QString& path) { return path.endsWith('/') ? path : path + "/"; }

}  // namespace

QStringList knownVoiceBanks() {
  QStringList banks;
  for (const QString& folder : QSettings().value("singerHistory").toStringList()) {
    if (QDir(folder).exists() && !banks.contains(asFolder(folder))) banks << asFolder(folder);
  }
  const QDir voices(QString::fromStdString(userFolder(UserFolder::kVoice)));
  for (const QString& name : voices.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
    const QDir bank(voices.filePath(name));
    if (looksLikeBank(bank) && !banks.contains(asFolder(bank.absolutePath()))) banks << asFolder(bank.absolutePath());
  }
  return banks;
}

QStringList analyzeBank(QWidget* parent, const QString& folder, bool* cancelled) {
  std::vector<SampleJob> jobs;
  for (const std::string& sample : bankSamples(folder.toStdString()))
    jobs.push_back({sample, SampleJob::Outcome::kFailed, ""});
  QStringList failures;
  if (jobs.empty()) {
    failures << QObject::tr("%1: no oto.ini or oto_ini.txt entries").arg(folder);
    return failures;
  }
  std::atomic<size_t> done{0};
  std::atomic<bool> stop{false}, finished{false};
  std::thread worker([&] {
    analyseAll(jobs, AnalysisOptions(), std::max(1, QThread::idealThreadCount()), &done, &stop);
    finished = true;
  });
  QProgressDialog progress(QObject::tr("Analysing %1…").arg(QFileInfo(folder.chopped(1)).fileName()),
                           QObject::tr("Cancel"), 0, static_cast<int>(jobs.size()), parent);
  progress.setWindowModality(Qt::WindowModal);
  progress.setMinimumDuration(300);
  QEventLoop loop;
  QTimer poll;
  QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
    progress.setValue(static_cast<int>(done.load()));
    if (finished) loop.quit();
  });
  QObject::connect(&progress, &QProgressDialog::canceled, &loop, [&] { stop = true; });
  poll.start(50);
  if (!finished) loop.exec();
  worker.join();
  progress.reset();
  if (cancelled != nullptr) *cancelled = stop.load();
  for (const SampleJob& job : jobs) {
    if (job.outcome == SampleJob::Outcome::kFailed && !job.reason.empty()) {
      failures << QString::fromStdString(job.path + ": " + job.reason);
    }
  }
  return failures;
}

// --- Singer ------------------------------------------------------------------------------

SingerDialog::SingerDialog(EditorDocument* document, QWidget* parent) : QDialog(parent), document_(document) {
  setWindowTitle(tr("Singer"));
  auto* layout = new QHBoxLayout(this);
  // The list gets the room: it is what the user chooses from.
  auto* left = new QVBoxLayout;
  list_ = new QListWidget(this);
  list_->setObjectName("banks");
  for (const QString& folder : knownVoiceBanks()) {
    CVoiceProfile profile(folder.toLocal8Bit().constData());
    auto* item = new QListWidgetItem(QString::fromUtf8(profile.voiceName()), list_);
    item->setData(Qt::UserRole, folder);
    item->setToolTip(folder);
    if (QDir(folder) == QDir(document_->voiceFolder())) list_->setCurrentItem(item);
  }
  left->addWidget(list_, 1);
  auto* add = new QPushButton(tr("&Add Folder…"), this);
  add->setObjectName("addFolder");
  left->addWidget(add);
  layout->addLayout(left, 3);
  auto* right = new QVBoxLayout;
  image_ = new QLabel(this);
  image_->setFixedSize(100, 100);
  image_->setScaledContents(true);
  name_ = new QLabel(this);
  name_->setObjectName("singerName");
  name_->setWordWrap(true);
  QFont big = name_->font();
  big.setPointSizeF(big.pointSizeF() * 1.25);
  name_->setFont(big);
  auto* head = new QHBoxLayout;
  head->addWidget(image_);
  head->addWidget(name_, 1);
  right->addLayout(head);
  profile_ = new QPlainTextEdit(this);
  profile_->setObjectName("profile");
  profile_->setReadOnly(true);
  profile_->setLineWrapMode(QPlainTextEdit::WidgetWidth);
  right->addWidget(profile_, 1);
  auto* buttons = new QHBoxLayout;
  sing_ = new QPushButton(tr("&Sing with This Bank"), this);
  sing_->setObjectName("sing");
  analyze_ = new QPushButton(tr("&Analyze Bank…"), this);
  analyze_->setObjectName("analyze");
  entries_ = new QPushButton(tr("Edit &Entries…"), this);
  entries_->setObjectName("entries");
  auto* close = new QPushButton(tr("Close"), this);
  buttons->addWidget(sing_);
  buttons->addWidget(analyze_);
  buttons->addWidget(entries_);
  buttons->addStretch();
  buttons->addWidget(close);
  right->addLayout(buttons);
  layout->addLayout(right, 4);

  connect(list_, &QListWidget::currentItemChanged, this, &SingerDialog::showProfile);
  connect(close, &QPushButton::clicked, this, &QDialog::accept);
  connect(add, &QPushButton::clicked, this, [this] {
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Voice Bank Folder"),
                                                             QString::fromStdString(userFolder(UserFolder::kVoice)));
    if (!folder.isEmpty()) addFolder(folder);
  });
  connect(sing_, &QPushButton::clicked, this, [this] {
    QString error;
    if (!singWithChosen(&error)) QMessageBox::warning(this, tr("Singer"), error);
  });
  connect(analyze_, &QPushButton::clicked, this, [this] {
    if (chosen().isEmpty()) return;
    bool cancelled = false;
    const QStringList failures = analyzeBank(this, chosen(), &cancelled);
    QMessageBox box(failures.isEmpty() ? QMessageBox::Information : QMessageBox::Warning, tr("Analyze Bank"),
                    cancelled ? tr("Stopped.")
                    : failures.isEmpty()
                        ? tr("Every sample has its frequency table.")
                        : tr("%n sample(s) could not be analysed.", nullptr, static_cast<int>(failures.size())),
                    QMessageBox::Ok, this);
    if (!failures.isEmpty()) box.setDetailedText(failures.join('\n'));
    box.exec();
  });
  connect(entries_, &QPushButton::clicked, this, [this] {
    if (chosen().isEmpty()) return;
    auto* editor = new BankEditor;
    QString error;
    if (!editor->open(chosen(), &error)) {
      delete editor;
      QMessageBox::warning(this, tr("Voice Bank Entries"), error);
      return;
    }
    editor->show();
  });
  if (list_->currentItem() == nullptr && list_->count() > 0) list_->setCurrentRow(0);
  showProfile();
  resize(760, 460);
}

void SingerDialog::addFolder(const QString& folder) {
  QString path = QDir(folder).absolutePath();
  if (!path.endsWith('/')) path += '/';
  for (int row = 0; row < list_->count(); ++row) {
    if (QDir(list_->item(row)->data(Qt::UserRole).toString()) == QDir(path)) {
      list_->setCurrentRow(row);
      return;
    }
  }
  CVoiceProfile profile(path.toLocal8Bit().constData());
  auto* item = new QListWidgetItem(QString::fromUtf8(profile.voiceName()), list_);
  item->setData(Qt::UserRole, path);
  item->setToolTip(path);
  list_->setCurrentItem(item);
}

QString reflowProfile(const QString& text) {
  QStringList paragraphs;
  QString paragraph;
  for (const QString& raw : text.split('\n')) {
    const QString line = raw.trimmed();
    // "charset=UTF-8", "#Charset:UTF-8": how the file is written, not what it says.
    if (line.startsWith("charset", Qt::CaseInsensitive) || line.startsWith("#charset", Qt::CaseInsensitive)) continue;
    if (line.isEmpty()) {
      if (!paragraph.isEmpty()) paragraphs << paragraph;
      paragraph.clear();
      continue;
    }
    // Lines of a paragraph join; with a space only between words of
    // scripts that separate their words.
    if (!paragraph.isEmpty() && paragraph.back().unicode() < 0x3000 && line.front().unicode() < 0x3000) {
      paragraph += ' ';
    }
    paragraph += line;
  }
  if (!paragraph.isEmpty()) paragraphs << paragraph;
  return paragraphs.join("\n\n");
}

QString SingerDialog::chosen() const {
  const QListWidgetItem* item = list_->currentItem();
  return item != nullptr ? item->data(Qt::UserRole).toString() : QString();
}

QString SingerDialog::shownName() const { return name_->text(); }

void SingerDialog::showProfile() {
  const QString folder = chosen();
  for (QPushButton* button : {sing_, analyze_, entries_}) button->setEnabled(!folder.isEmpty());
  if (folder.isEmpty()) {
    name_->setText(tr("No voice bank chosen"));
    image_->setVisible(false);
    profile_->setPlainText(
        tr("Voice banks are folders of recorded syllables with an oto.ini table. Put them in %1, or add a "
           "folder from anywhere with Add Folder….")
            .arg(QString::fromStdString(userFolder(UserFolder::kVoice))));
    return;
  }
  CVoiceProfile profile(folder.toLocal8Bit().constData());
  name_->setText(QString::fromUtf8(profile.voiceName()));
  const QPixmap picture(QString::fromUtf8(profile.imageFilePath()));
  image_->setPixmap(picture);
  image_->setVisible(!picture.isNull());
  QString text = QString::fromUtf8(profile.profileText());
  const QString readme = QString::fromUtf8(profile.readmeText());
  if (!readme.isEmpty()) text += (text.isEmpty() ? "" : "\n\n") + readme;
  if (profile.samplePath() != nullptr && profile.samplePath()[0] != '\0') {
    text += "\n\n" + tr("Sample: %1").arg(QString::fromUtf8(profile.samplePath()));
  }
  profile_->setPlainText(reflowProfile(text.trimmed()));
}

bool SingerDialog::singWithChosen(QString* error) {
  const QString folder = chosen();
  if (folder.isEmpty()) {
    *error = tr("No voice bank is chosen");
    return false;
  }
  if (!document_->setVoiceFolder(folder, error)) return false;
  rememberInList("singerHistory", folder, 10);
  emit singerChanged(folder);
  return true;
}

// --- Prefix map ---------------------------------------------------------------------------

PrefixMapDialog::PrefixMapDialog(EditorDocument* document, QWidget* parent) : QDialog(parent), document_(document) {
  setWindowTitle(tr("Prefix Map"));
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(
      new QLabel(tr("What is put before and after a note's lyric to find its entry, note by note."), this));
  table_ = new QTableWidget(kHighest - kLowest + 1, 3, this);
  table_->setObjectName("prefixMap");
  table_->setHorizontalHeaderLabels({tr("Note"), tr("Prefix"), tr("Suffix")});
  table_->verticalHeader()->hide();
  table_->horizontalHeader()->setStretchLastSection(true);
  static const char* const kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  const cvoiceset* set = document_->engine().voiceset;
  for (int note = kHighest; note >= kLowest; --note) {
    const int row = kHighest - note;
    auto* name = new QTableWidgetItem(QString("%1%2").arg(kNames[note % 12]).arg(note / 12 - 1));
    name->setFlags(Qt::ItemIsEnabled);
    table_->setItem(row, 0, name);
    table_->setItem(row, 1, new QTableWidgetItem(set != nullptr ? QString::fromUtf8(set->prefixMap[note].prefix) : ""));
    table_->setItem(row, 2, new QTableWidgetItem(set != nullptr ? QString::fromUtf8(set->prefixMap[note].suffix) : ""));
  }
  auto* buttons = dialogButtons(this, QDialogButtonBox::Save | QDialogButtonBox::Cancel);
  layout->addWidget(table_);
  layout->addWidget(buttons);
  resize(420, 560);
}

bool PrefixMapDialog::save(QString* error) {
  cvoiceset* set = document_->engine().voiceset;
  if (set == nullptr || document_->voiceFolder().isEmpty()) {
    *error = tr("The project sings with no voice bank");
    return false;
  }
  for (int note = kHighest; note >= kLowest; --note) {
    const int row = kHighest - note;
    const QByteArray prefix = table_->item(row, 1)->text().trimmed().toUtf8();
    const QByteArray suffix = table_->item(row, 2)->text().trimmed().toUtf8();
    if (prefix.size() >= 32 || suffix.size() >= 32) {
      *error = tr("%1: a prefix or suffix holds at most 31 bytes").arg(table_->item(row, 0)->text());
      return false;
    }
    strcpy_n(set->prefixMap[note].prefix, prefix.constData(), sizeof set->prefixMap[note].prefix);
    strcpy_n(set->prefixMap[note].suffix, suffix.constData(), sizeof set->prefixMap[note].suffix);
  }
  if (document_->notes().wrtiePrefixMap() != 1) {
    *error = tr("Cannot write the prefix map in %1").arg(document_->voiceFolder());
    return false;
  }
  // The map is read back: in memory it is left in Shift_JIS by the writer.
  document_->model().changeVoiceSet(nullptr, false);
  document_->touch();
  return true;
}

void PrefixMapDialog::accept() {
  QString error;
  if (!save(&error)) {
    QMessageBox::warning(this, tr("Prefix Map"), error);
    return;
  }
  QDialog::accept();
}
