// The sync status row, the "From Cloud" section, the set-up dialog and the
// start of a copy.
#include "SyncSidebar.h"

#include <QFileDialog>
#include <QFrame>
#include <QHBoxLayout>
#include <QMenu>
#include <QTimer>
#include <QToolButton>

#include "ProjectCopySheet.h"
#include "SymbolIcon.h"

namespace hl {

QString SyncTexts::restoreHelp(TextPlatform p) {
    return platformText(p, "Restore the most recent workspace that lost an iCloud conflict",
                        "Restore the most recent workspace that lost a Cloud conflict");
}

QString SyncTexts::fromCloud(TextPlatform p) {
    return platformText(p, "From iCloud", "From Cloud");
}

QString SyncTexts::panelTitle(const QString& name, TextPlatform p) {
    return "Choose " + name + platformText(p, " on this Mac", " on this computer");
}

QString SyncTexts::panelMessage(TextPlatform p) {
    return platformText(p, "Select this project's local root. The path stays on this Mac.",
                        "Select this project's local root. The path stays on this computer.");
}

QString SyncTexts::setUpTitle(const std::optional<SharedProject>& project) {
    return project ? "Set Up " + project->name + "?" : QStringLiteral("Set Up Project?");
}

QString SyncTexts::setUpMessage(const SharedProject& project, TextPlatform p) {
    if (!project.origin) {
        return platformText(p, "Choose this project's existing folder on this Mac.",
                            "Choose this project's existing folder on this computer.");
    }
    return project.name + " exists on " + project.origin->deviceName + " at " +
           project.origin->root +
           platformText(p, ". Copy it to the same path on this Mac?",
                        ". Copy it to the same path on this computer?");
}

SyncSidebar::SyncSidebar(
    CloudSyncCoordinator* sync, QWidget* sidebar,
    std::function<void(const ProjectRecord&)> openProject, ProjectCopyController* copy,
    std::function<std::optional<QString>(const QString&, const QString&, const QString&)>
        chooseFolder)
    : QObject(sidebar),
      sync_(sync),
      openProject_(std::move(openProject)),
      copy_(copy),
      chooseFolder_(std::move(chooseFolder)) {
    if (!chooseFolder_) {
        chooseFolder_ = [sidebar](const QString& title, const QString& message,
                                  const QString& prompt) -> std::optional<QString> {
            QFileDialog panel(sidebar->window(), title);
            panel.setFileMode(QFileDialog::Directory);
            panel.setOption(QFileDialog::ShowDirsOnly);
            panel.setLabelText(QFileDialog::Accept, prompt);
            panel.setToolTip(message);
            if (panel.exec() != QDialog::Accepted || panel.selectedFiles().isEmpty())
                return std::nullopt;
            return panel.selectedFiles().front();
        };
    }
    section_ = new QWidget(sidebar);
    section_->setObjectName("sync.fromCloud");
    rows_ = new QVBoxLayout(section_);
    rows_->setContentsMargins(12, 8, 12, 8);

    statusRow_ = new QWidget(sidebar);
    statusRow_->setObjectName("sync.statusRow");
    auto* column = new QVBoxLayout(statusRow_);
    column->setContentsMargins(0, 0, 0, 0);
    auto* line = new QFrame(statusRow_);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    column->addWidget(line);
    auto* row = new QHBoxLayout();
    row->setContentsMargins(12, 6, 12, 6);
    statusIcon_ = new QLabel(statusRow_);
    statusText_ = new QLabel(statusRow_);
    statusText_->setObjectName("sync.status");
    QFont caption = statusText_->font();
    caption.setPointSizeF(caption.pointSizeF() * 0.85);
    statusText_->setFont(caption);
    statusText_->setForegroundRole(QPalette::PlaceholderText);
    restore_ = new QPushButton(SyncTexts::restorePrevious(), statusRow_);
    restore_->setObjectName("sync.restorePrevious");
    restore_->setFlat(true);
    restore_->setToolTip(SyncTexts::restoreHelp());
    row->addWidget(statusIcon_);
    row->addWidget(statusText_, 1);
    row->addWidget(restore_);
    column->addLayout(row);
    connect(restore_, &QPushButton::clicked, this, [this] {
        if (sync_) sync_->restoreMostRecentRecovery();
    });
    connect(sync, &CloudSyncCoordinator::statusChanged, this, &SyncSidebar::updateStatus);
    connect(sync, &CloudSyncCoordinator::recoveryCountChanged, this, &SyncSidebar::updateStatus);
    connect(sync, &CloudSyncCoordinator::unmappedProjectsChanged, this, [this] {
        rebuildSection();
        if (sync_) announceNewUnmappedProjects(sync_->unmappedProjects());
    });
    updateStatus();
    rebuildSection();
    // The window appears on the event loop's first turn.
    QTimer::singleShot(0, this, [this] {
        if (sync_) announceNewUnmappedProjects(sync_->unmappedProjects());
    });
}

void SyncSidebar::updateStatus() {
    if (!sync_) return;
    statusText_->setText(sync_->status().title());
    statusIcon_->setPixmap(symbolPixmap(sync_->status().systemImage(), 12));
    restore_->setVisible(sync_->recoveryCount() > 0);
}

void SyncSidebar::rebuildSection() {
    while (QLayoutItem* item = rows_->takeAt(0)) {
        if (item->widget()) item->widget()->deleteLater();
        delete item;
    }
    const QList<SharedProject> projects =
        sync_ ? sync_->unmappedProjects() : QList<SharedProject>();
    section_->setVisible(!projects.isEmpty());
    if (projects.isEmpty()) return;
    auto* header = new QLabel(SyncTexts::fromCloud(), section_);
    header->setObjectName("sync.fromCloud.header");
    rows_->addWidget(header);
    for (const SharedProject& project : projects) {
        auto* row = new QWidget(section_);
        row->setObjectName("sync.fromCloud.row");
        auto* line = new QHBoxLayout(row);
        line->setContentsMargins(0, 2, 0, 2);
        auto* icon = new QLabel(row);
        icon->setPixmap(symbolPixmap(QStringLiteral("icloud"), 12));
        auto* name = new QLabel(project.name, row);
        auto* setUp = new QToolButton(row);
        setUp->setText(SyncTexts::setUpMenu());
        setUp->setPopupMode(QToolButton::InstantPopup);
        auto* menu = new QMenu(setUp);
        menu->setObjectName("sync.fromCloud.menu");
        if (project.origin && copy_)
            menu->addAction(SyncTexts::copyFromMenu(project.origin->deviceName), this,
                            [this, project] { startCopy(project); });
        menu->addAction(SyncTexts::chooseExistingFolder(), this,
                        [this, project] { mapSyncedProject(project); });
        setUp->setMenu(menu);
        line->addWidget(icon);
        line->addWidget(name, 1);
        line->addWidget(setUp);
        rows_->addWidget(row);
    }
}

void SyncSidebar::mapSyncedProject(const SharedProject& project) {
    if (!sync_) return;
    const auto folder = chooseFolder_(SyncTexts::panelTitle(project.name),
                                      SyncTexts::panelMessage(), SyncTexts::panelPrompt());
    if (!folder) return;
    if (auto record = sync_->mapProject(project, *folder)) openProject_(*record);
}

void SyncSidebar::startCopy(const SharedProject& project) {
    if (!copy_) return;
    const QPointer<SyncSidebar> self(this);
    copy_->start(copySourceOf(project), [self, project](const QString& destination) {
        if (!self || !self->sync_) return false;
        const auto record = self->sync_->mapProject(project, destination);
        if (!record) return false;
        self->openProject_(*record);
        return true;
    });
}

void SyncSidebar::announceNewUnmappedProjects(const QList<SharedProject>& projects) {
    std::optional<SharedProject> first;
    for (const auto& project : projects) {
        if (!first && announcedUnmappedProjectIDs_.count(project.id) == 0) first = project;
    }
    for (const auto& project : projects)
        announcedUnmappedProjectIDs_.insert(project.id);
    if (!projectToSetUp_ && first) showSetUp(*first);
}

void SyncSidebar::showSetUp(const SharedProject& project) {
    projectToSetUp_ = project;
    auto* dialog = new QMessageBox(statusRow_->window());
    dialog->setObjectName("sync.setUp");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(SyncTexts::setUpTitle(project));
    dialog->setText(SyncTexts::setUpTitle(project));
    dialog->setInformativeText(SyncTexts::setUpMessage(project));
    QPushButton* copy = nullptr;
    if (project.origin && copy_) {
        copy = dialog->addButton(SyncTexts::copyFromButton(project.origin->deviceName),
                                 QMessageBox::AcceptRole);
        copy->setObjectName("sync.setUp.copy");
    }
    QPushButton* choose =
        dialog->addButton(SyncTexts::chooseExistingFolder(), QMessageBox::AcceptRole);
    choose->setObjectName("sync.setUp.choose");
    QPushButton* later = dialog->addButton(SyncTexts::later(), QMessageBox::RejectRole);
    later->setObjectName("sync.setUp.later");
    dialog->setEscapeButton(later);
    connect(dialog, &QMessageBox::finished, this, [this, dialog, copy, choose, project] {
        const QAbstractButton* clicked = dialog->clickedButton();
        projectToSetUp_.reset();
        if (copy && clicked == copy) startCopy(project);
        // A modal panel cannot open while the dialog is closing.
        if (clicked == choose)
            QTimer::singleShot(0, this, [this, project] { mapSyncedProject(project); });
    });
    dialog_ = dialog;
    dialog->open();
}

ProjectCopySource copySourceOf(const SharedProject& project) {
    ProjectCopySource source{project.id, project.name, std::nullopt};
    if (project.origin) {
        const ProjectOrigin& origin = *project.origin;
        source.origin =
            ProjectCopyOrigin{origin.deviceName, origin.sshHost, origin.sshUser, origin.root};
    }
    return source;
}

SyncSidebar* installSyncSidebar(CloudSyncCoordinator& sync, QWidget* window,
                                std::function<void(const ProjectRecord&)> openProject,
                                ProjectCopyController* copy) {
    auto* sidebar = window->findChild<QWidget*>(QStringLiteral("sidebar"));
    auto* errorRow = window->findChild<QWidget*>(QStringLiteral("sidebar.error"));
    auto* column = sidebar ? qobject_cast<QVBoxLayout*>(sidebar->layout()) : nullptr;
    if (!column || !errorRow) return nullptr;
    auto* pieces = new SyncSidebar(&sync, sidebar, std::move(openProject), copy);
    if (copy) new ProjectCopySheet(copy, window);
    const int at = column->indexOf(errorRow);
    column->insertWidget(at, pieces->statusRow());
    column->insertWidget(at, pieces->fromCloudSection());
    return pieces;
}

}  // namespace hl
