#include "ui/shell/preferences.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QKeySequenceEdit>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QTabWidget>
#include <QTableWidget>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>
#include <cmath>
#include <vector>

#include "playback/sdl_output.h"
#include "render/cache.h"
#include "support/log.h"
#include "ui/shell/dialogbuttons.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/player.h"

EditorPreferences EditorPreferences::load() {
  QSettings s;
  EditorPreferences p;
  p.device = s.value("audio/device").toString();
  p.renderFirst = s.value("audio/renderFirst", false).toBool();
  p.renderThreads = s.value("render/threads", std::max(1, QThread::idealThreadCount())).toInt();
  p.logLevel = s.value("log/level", 3).toInt();
  p.logFile = s.value("log/file").toString();
  p.noteLength = s.value("noteDefaults/length", 480).toInt();
  p.grid = s.value("grid", 120).toInt();
  return p;
}

void EditorPreferences::save() const {
  QSettings s;
  s.setValue("audio/device", device);
  s.setValue("audio/renderFirst", renderFirst);
  s.setValue("render/threads", renderThreads);
  s.setValue("log/level", logLevel);
  s.setValue("log/file", logFile);
  s.setValue("noteDefaults/length", noteLength);
  s.setValue("grid", grid);
}

void EditorPreferences::applyLogging() const {
  const QByteArray path = logFile.toLocal8Bit();
  const QByteArray level = QByteArray::number(logLevel);
  log_init(path.isEmpty() ? nullptr : path.constData(), level.constData());
}

namespace {

struct Choice {
  const char* label;
  int ticks;
};
const Choice kLengths[] = {{"1/2", 960}, {"1/4", 480}, {"1/8", 240}, {"1/16", 120}, {"1/32", 60}};

QComboBox* choiceBox(QWidget* parent, int current) {
  auto* box = new QComboBox(parent);
  for (const Choice& c : kLengths) box->addItem(c.label, c.ticks);
  const int at = box->findData(current);
  box->setCurrentIndex(at >= 0 ? at : 1);
  return box;
}

}  // namespace

PreferencesDialog::PreferencesDialog(MainWindow* window) : QDialog(window), window_(window) {
  setWindowTitle(tr("Preferences"));
  const EditorPreferences prefs = EditorPreferences::load();
  auto* layout = new QVBoxLayout(this);
  auto* tabs = new QTabWidget(this);
  layout->addWidget(tabs);

  // Sound and rendering.
  auto* sound = new QWidget(tabs);
  auto* form = new QFormLayout(sound);
  device_ = new QComboBox(sound);
  device_->setObjectName("device");
  device_->addItem(tr("Default output"), QString());
  if (!prefs.device.isEmpty()) device_->addItem(prefs.device, prefs.device);
  device_->setCurrentIndex(device_->findData(prefs.device));
  auto* tone = new QPushButton(tr("Test Tone"), sound);
  auto* deviceRow = new QHBoxLayout;
  deviceRow->addWidget(device_, 1);
  deviceRow->addWidget(tone);
  form->addRow(tr("Output device"), deviceRow);
  renderFirst_ = new QCheckBox(tr("Render the whole song before playing (for slow machines)"), sound);
  renderFirst_->setChecked(prefs.renderFirst);
  form->addRow(QString(), renderFirst_);
  threads_ = new QSpinBox(sound);
  threads_->setObjectName("threads");
  threads_->setRange(1, 8);
  threads_->setValue(prefs.renderThreads);
  form->addRow(tr("Render threads"), threads_);
  cacheSize_ = new QLabel(sound);
  auto* clean = new QPushButton(tr("Empty Cache"), sound);
  auto* cacheRow = new QHBoxLayout;
  cacheRow->addWidget(cacheSize_, 1);
  cacheRow->addWidget(clean);
  form->addRow(tr("Render cache"), cacheRow);
  logLevel_ = new QSpinBox(sound);
  logLevel_->setRange(1, 6);
  logLevel_->setValue(prefs.logLevel);
  logLevel_->setToolTip(tr("1: errors only … 6: everything"));
  form->addRow(tr("Log level"), logLevel_);
  logFile_ = new QLineEdit(prefs.logFile, sound);
  logFile_->setPlaceholderText(tr("standard error"));
  form->addRow(tr("Log file"), logFile_);
  tabs->addTab(sound, tr("Sound"));

  // Editing.
  auto* editing = new QWidget(tabs);
  auto* editForm = new QFormLayout(editing);
  noteLength_ = choiceBox(editing, prefs.noteLength);
  grid_ = choiceBox(editing, prefs.grid);
  editForm->addRow(tr("New note length"), noteLength_);
  editForm->addRow(tr("Grid"), grid_);
  tabs->addTab(editing, tr("Editing"));

  // Shortcuts: every named action of the window.
  auto* keys = new QWidget(tabs);
  auto* keysLayout = new QVBoxLayout(keys);
  shortcuts_ = new QTableWidget(0, 2, keys);
  shortcuts_->setObjectName("shortcuts");
  shortcuts_->setHorizontalHeaderLabels({tr("Command"), tr("Shortcut")});
  shortcuts_->horizontalHeader()->setStretchLastSection(true);
  shortcuts_->verticalHeader()->hide();
  for (QAction* act : window_->findChildren<QAction*>()) {
    if (act->objectName().isEmpty() || act->text().isEmpty()) continue;
    const int row = shortcuts_->rowCount();
    shortcuts_->insertRow(row);
    auto* name = new QTableWidgetItem(QString(act->text()).remove('&'));
    name->setData(Qt::UserRole, act->objectName());
    name->setFlags(Qt::ItemIsEnabled);
    shortcuts_->setItem(row, 0, name);
    auto* edit = new ShortcutEdit(act->shortcut(), shortcuts_);
    shortcuts_->setCellWidget(row, 1, edit);
  }
  shortcuts_->resizeColumnToContents(0);
  keysLayout->addWidget(shortcuts_);
  tabs->addTab(keys, tr("Shortcuts"));

  auto* buttons = dialogButtons(this);
  layout->addWidget(buttons);

  connect(tone, &QPushButton::clicked, this, [this] {
    QString error;
    if (!playTestTone(&error)) QMessageBox::warning(this, tr("Test Tone"), error);
  });
  connect(clean, &QPushButton::clicked, this, [this] {
    CCacheSys::deleteCacheAll();
    showCacheSize();
  });
  // Devices come and go: the list follows while the dialog is open.
  auto* refresh = new QTimer(this);
  connect(refresh, &QTimer::timeout, this, &PreferencesDialog::refreshDevices);
  refresh->start(2000);
  refreshDevices();
  showCacheSize();
  resize(560, 480);
}

void PreferencesDialog::refreshDevices() {
  std::string error;
  const std::vector<std::string> names = listAudioDevices(&error);
  const QString current = device_->currentData().toString();
  for (const std::string& name : names) {
    const QString text = QString::fromStdString(name);
    if (device_->findData(text) < 0) device_->addItem(text, text);
  }
  // Devices gone (other than the chosen one) leave the list.
  for (int k = device_->count() - 1; k >= 1; --k) {
    const std::string name = device_->itemData(k).toString().toStdString();
    if (device_->itemData(k).toString() != current && std::find(names.begin(), names.end(), name) == names.end()) {
      device_->removeItem(k);
    }
  }
  device_->setCurrentIndex(std::max(0, device_->findData(current)));
}

void PreferencesDialog::showCacheSize() {
  int64_t files = 0, bytes = 0;
  CCacheSys::usage(&files, &bytes);
  cacheSize_->setText(tr("%1 MB in %2 files").arg(bytes / 1048576.0, 0, 'f', 1).arg(files));
}

bool PreferencesDialog::playTestTone(QString* error) {
  if (!Player::instance().setDevice(device_->currentData().toString(), error)) return false;
  std::vector<int16_t> tone(static_cast<size_t>(44100 * 0.6));
  for (size_t i = 0; i < tone.size(); ++i) {
    const double fade = std::min(1.0, std::min(i, tone.size() - i) / 2000.0);
    tone[i] = static_cast<int16_t>(8000.0 * fade * std::sin(2.0 * M_PI * 440.0 * static_cast<double>(i) / 44100.0));
  }
  return Player::instance().playClip(tone, error);
}

void ShortcutEdit::keyPressEvent(QKeyEvent* event) {
  if ((event->key() == Qt::Key_Backspace || event->key() == Qt::Key_Delete) && event->modifiers() == Qt::NoModifier) {
    clear();
    emit editingFinished();
    return;
  }
  QKeySequenceEdit::keyPressEvent(event);
}

bool PreferencesDialog::apply(QString* error) {
  // Shortcuts first: two commands on one key are refused.
  std::vector<std::pair<QString, QKeySequence>> keys;
  for (int row = 0; row < shortcuts_->rowCount(); ++row) {
    const QKeySequence key = static_cast<QKeySequenceEdit*>(shortcuts_->cellWidget(row, 1))->keySequence();
    if (key.isEmpty()) {
      keys.emplace_back(shortcuts_->item(row, 0)->data(Qt::UserRole).toString(), key);
      continue;
    }
    for (int other = 0; other < row; ++other) {
      const QKeySequence otherKey = static_cast<QKeySequenceEdit*>(shortcuts_->cellWidget(other, 1))->keySequence();
      if (otherKey == key) {
        *error = tr("%1 is taken by both \"%2\" and \"%3\"")
                     .arg(key.toString(QKeySequence::NativeText), shortcuts_->item(other, 0)->text(),
                          shortcuts_->item(row, 0)->text());
        return false;
      }
    }
    keys.emplace_back(shortcuts_->item(row, 0)->data(Qt::UserRole).toString(), key);
  }
  QSettings settings;
  for (const auto& [name, key] : keys) settings.setValue("shortcuts/" + name, key.toString(QKeySequence::PortableText));

  EditorPreferences prefs = EditorPreferences::load();
  prefs.device = device_->currentData().toString();
  prefs.renderFirst = renderFirst_->isChecked();
  prefs.renderThreads = threads_->value();
  prefs.logLevel = logLevel_->value();
  prefs.logFile = logFile_->text().trimmed();
  prefs.noteLength = noteLength_->currentData().toInt();
  prefs.grid = grid_->currentData().toInt();
  prefs.save();
  prefs.applyLogging();
  // Every window takes the new shortcuts; playback takes the device.
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (auto* window = qobject_cast<MainWindow*>(widget)) window->applyShortcuts();
  }
  QString deviceError;
  if (!Player::instance().setDevice(prefs.device, &deviceError)) *error = deviceError;
  return true;
}

void PreferencesDialog::accept() {
  QString error;
  if (!apply(&error)) {
    QMessageBox::warning(this, tr("Preferences"), error);
    return;
  }
  if (!error.isEmpty()) QMessageBox::warning(this, tr("Preferences"), error);
  QDialog::accept();
}
