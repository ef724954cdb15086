// SettingsDialog: the one Settings window, with its pages Sync, Terminals and
// Updates. It is not modal; every change applies at once, so there is nothing
// to confirm.
#pragma once

#include <QDialog>

class QTabWidget;

namespace hl {

class HarborlatticeApp;

class SettingsDialog : public QDialog {
    Q_OBJECT

  public:
    enum class Page { Sync, Terminals, Updates };

    // Shows the one dialog of `parent` (a window) on `page`, building it the first time.
    static SettingsDialog* present(HarborlatticeApp& app, QWidget* parent, Page page);

    SettingsDialog(HarborlatticeApp& app, QWidget* parent);
    void showPage(Page page);

  private:
    QTabWidget* pages_;
};

}  // namespace hl
