#include "ui/shell/startup.h"

#include <QFile>
#include <QMessageBox>
#include <QPushButton>

#include "ui/shell/mainwindow.h"
#include "ui/shell/texts.h"

bool offerRecovery(MainWindow* window, const QString& recoveryPath) {
  if (!QFile::exists(recoveryPath)) return false;
  QMessageBox box(QMessageBox::Question, "TONA", coreText("前回異常終了したプロジェクトがあります。"),
                  QMessageBox::NoButton, window);
  box.setObjectName("recoveryQuestion");
  QPushButton* load = box.addButton(coreText("読み込む(Load project)"), QMessageBox::AcceptRole);
  load->setObjectName("recoveryLoad");
  QPushButton* discard = box.addButton(coreText("破棄する(Discard)"), QMessageBox::DestructiveRole);
  discard->setObjectName("recoveryDiscard");
  box.setDefaultButton(load);
  box.exec();
  if (box.clickedButton() == load) return window->openRecovery(recoveryPath);
  QFile::remove(recoveryPath);
  return false;
}
