// The Updates page: automatic checks on or off, and the feed.
#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QLineEdit;

namespace hl {

class HarborlatticeApp;

class UpdateSettingsPage : public QWidget {
    Q_OBJECT

  public:
    UpdateSettingsPage(HarborlatticeApp& app, QWidget* parent);

  private:
    void apply();
    void showNote();

    HarborlatticeApp& app_;
    QCheckBox* automatic_;
    QLineEdit* feed_;
    QLabel* note_;
};

}  // namespace hl
