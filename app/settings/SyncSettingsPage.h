// The Sync page: off, a shared folder, or a WebDAV file with its user name and
// password; "Test" reads the record and shows what it found.
#pragma once

#include <QWidget>

class QButtonGroup;
class QLabel;
class QLineEdit;
class QPushButton;

namespace hl {

class SyncSettingsController;
struct SyncSettings;

class SyncSettingsPage : public QWidget {
    Q_OBJECT

  public:
    SyncSettingsPage(SyncSettingsController& controller, QWidget* parent);

  private:
    void showSettings();
    // The choice as the controls stand.
    SyncSettings chosen() const;
    void chooseFolder();
    void applyChoice();
    void applyPassword();
    void test();

    SyncSettingsController& controller_;
    QButtonGroup* mode_;
    QLabel* folder_;
    QLineEdit* url_;
    QLineEdit* user_;
    QLineEdit* password_;
    QPushButton* test_;
    QLabel* result_;
};

}  // namespace hl
