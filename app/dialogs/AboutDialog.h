// AboutDialog: Help ▸ About Harborlattice — the version, and the licences of
// what the application is built with (xterm.js in the terminal document, Qt).
#pragma once

#include <QDialog>

namespace hl {

class AboutDialog : public QDialog {
    Q_OBJECT
  public:
    explicit AboutDialog(QWidget* parent = nullptr);

    // "Harborlattice <version>".
    static QString title();
};

}  // namespace hl
