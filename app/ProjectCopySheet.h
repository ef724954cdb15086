// ProjectCopySheet shows one project copy: its title, the controller's detail
// (selectable, since it may hold a command to run), a spinner while the origin
// is checked and a bar while rsync runs, and "Cancel" or "Done". It opens and
// closes with the controller's isPresented and cannot be closed while a copy
// runs. Beside it, the texts that offer a copy of a shared project.
#pragma once

#include <QDialog>

#include <optional>

#include "ProjectCopyError.h"
#include "ProjectCopyPlan.h"

class QLabel;
class QProgressBar;
class QPushButton;

namespace hl {

class ProjectCopyController;

// The entry of a shared project's "Set Up…" menu that starts a copy.
QString copyFromMenuTitle(const QString& deviceName);
// The set-up dialog's button that starts a copy.
QString copyFromButtonTitle(const QString& deviceName);
// The set-up dialog's message for a shared project, with or without an origin.
QString setUpProjectMessage(const QString& name, const std::optional<ProjectCopyOrigin>& origin,
                            CopyTextPlatform platform = runningCopyTextPlatform());

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
