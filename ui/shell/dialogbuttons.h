// The row of buttons at the foot of a dialog.
#pragma once

#include <QDialog>
#include <QDialogButtonBox>

// The standard buttons asked for (OK and Cancel unless said), whose accept
// and reject roles end `dialog`; the caller places the box.
inline QDialogButtonBox* dialogButtons(QDialog* dialog,
                                       QDialogButtonBox::StandardButtons which = QDialogButtonBox::Ok |
                                                                                 QDialogButtonBox::Cancel) {
  auto* buttons = new QDialogButtonBox(which, dialog);
  QObject::connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
  QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
  return buttons;
}
