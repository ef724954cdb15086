// ProjectCopySheet shows one project copy: its title, the controller's detail
// (selectable, since it may hold a command to run), a spinner while the origin
// is checked and a bar while rsync runs (busy until its first figure), and
// "Cancel" or "Done". It opens and closes with the controller's isPresented
// and cannot be closed while a copy runs.
#pragma once

#include <QDialog>

class QLabel;
class QProgressBar;
class QPushButton;

namespace hl {

class ProjectCopyController;

class ProjectCopySheet : public QDialog {
    Q_OBJECT

  public:
    ProjectCopySheet(ProjectCopyController* controller, QWidget* parent = nullptr);

    void reject() override;

  private:
    void refresh();

    ProjectCopyController* controller_;
    QLabel* title_;
    QLabel* detail_;
    QProgressBar* bar_;
    QPushButton* cancel_;
    QPushButton* done_;
};

}  // namespace hl
