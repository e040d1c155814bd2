#include "ui/shell/startup.h"

#include <QDateTime>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

#include "editing/recovery.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/texts.h"

namespace {

QString describe(const RecoveryCopy& copy) {
  const QString path = QString::fromStdString(copy.projectPath);
  QString name = QString::fromStdString(copy.projectName);
  if (name.isEmpty()) name = path.isEmpty() ? QObject::tr("Untitled") : QFileInfo(path).completeBaseName();
  const QString when = QDateTime::fromSecsSinceEpoch(copy.written).toString("yyyy-MM-dd hh:mm");
  return QObject::tr("%1 — %2 — %3, %n note(s)", nullptr, copy.noteCount)
      .arg(name, path.isEmpty() ? QObject::tr("never saved") : path, when);
}

}  // namespace

int offerRecovery(MainWindow* window) {
  const std::vector<RecoveryCopy> copies = findRecoveryCopies();
  if (copies.empty()) return 0;
  QDialog box(window);
  box.setObjectName("recoveryQuestion");
  box.setWindowTitle("TONA");
  auto* layout = new QVBoxLayout(&box);
  auto* question = new QLabel(coreText("前回異常終了したプロジェクトがあります。"), &box);
  question->setObjectName("recoveryText");
  layout->addWidget(question);
  auto* list = new QListWidget(&box);
  list->setObjectName("recoveryList");
  for (const RecoveryCopy& copy : copies) {
    auto* item = new QListWidgetItem(describe(copy), list);
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable);
    item->setCheckState(Qt::Checked);
    item->setToolTip(QString::fromStdString(copy.file));
  }
  layout->addWidget(list);
  auto* buttons = new QDialogButtonBox(&box);
  QPushButton* load = buttons->addButton(coreText("読み込む(Load project)"), QDialogButtonBox::AcceptRole);
  load->setObjectName("recoveryLoad");
  QPushButton* discard = buttons->addButton(coreText("破棄する(Discard)"), QDialogButtonBox::DestructiveRole);
  discard->setObjectName("recoveryDiscard");
  load->setDefault(true);
  layout->addWidget(buttons);
  // Closing the question without an answer keeps every copy for next time.
  enum class Choice { kNone, kLoad, kDiscard } choice = Choice::kNone;
  QObject::connect(load, &QPushButton::clicked, &box, [&] {
    choice = Choice::kLoad;
    box.accept();
  });
  QObject::connect(discard, &QPushButton::clicked, &box, [&] {
    choice = Choice::kDiscard;
    box.accept();
  });
  box.resize(640, 160 + 24 * static_cast<int>(copies.size()));
  box.exec();
  if (choice == Choice::kDiscard) {
    for (const RecoveryCopy& copy : copies) removeRecoveryCopy(copy.file);
  }
  if (choice != Choice::kLoad) return 0;
  int loaded = 0;
  for (size_t k = 0; k < copies.size(); ++k) {
    if (list->item(static_cast<int>(k))->checkState() != Qt::Checked) continue;
    if (window->restoreRecovery(QString::fromStdString(copies[k].file)) != nullptr) ++loaded;
  }
  return loaded;
}
