// The sync status row, the "From Cloud" section, the set-up dialog and the
// start of a copy.
#include "SyncSidebar.h"

#include <QEvent>
#include <QFileDialog>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QTimer>
#include <QToolButton>

#include "ContentView.h"
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

QString SyncTexts::recoveryObjects(const SyncRecoveryCopy& copy) {
    const SharedLosses losses = copy.losses();
    const SharedContent& content = copy.snapshot.content();
    const auto nameOf = [&](const QString& id) {
        for (const auto& project : content.projects) {
            if (project.id == id) return project.name;
        }
        return id;
    };
    QStringList items;
    for (const auto& id : losses.projectIDs)
        items.append(QString::fromUtf8("\u201C%1\u201D").arg(nameOf(id)));
    for (const auto& workspace : content.workspaces) {
        if (losses.projectIDs.contains(workspace.projectID)) continue;  // named with it
        for (const auto& tab : workspace.tabs) {
            if (!losses.tabIDs.contains(tab.id)) continue;
            items.append(QString::fromUtf8("tab \u201C%1\u201D of \u201C%2\u201D")
                             .arg(tab.title, nameOf(workspace.projectID)));
        }
    }
    if (items.size() > 3) {
        const auto more = items.size() - 2;
        items = items.mid(0, 2);
        items.append(QStringLiteral("%1 more").arg(more));
    }
    if (items.size() <= 1) return items.value(0);
    const QString last = items.takeLast();
    return items.join(QStringLiteral(", ")) + " and " + last;
}

QString SyncTexts::suspendedTerminals(std::size_t count) {
    if (count == 0) return QStringLiteral("No suspended terminals");
    return QStringLiteral("%1 suspended terminal%2").arg(count).arg(count == 1 ? "" : "s");
}

QString SyncTexts::timeAgo(SharedDate then, SharedDate now) {
    using namespace std::chrono;
    const auto minutes = duration_cast<std::chrono::minutes>(now - then).count();
    const auto plural = [](long long n, const char* unit) {
        return QStringLiteral("%1 %2%3 ago").arg(n).arg(unit).arg(n == 1 ? "" : "s");
    };
    if (minutes < 1) return QStringLiteral("just now");
    if (minutes < 60) return plural(minutes, "minute");
    if (minutes < 48 * 60) return plural(minutes / 60, "hour");
    return plural(minutes / (24 * 60), "day");
}

QString SyncTexts::recoveryItem(const SyncRecoveryCopy& copy, SharedDate now) {
    return recoveryObjects(copy) + QString::fromUtf8(" \u00B7 ") + copy.deviceName +
           QString::fromUtf8(" \u00B7 ") + timeAgo(copy.snapshot.modifiedAt(), now);
}

QString SyncTexts::restoreQuestion(const SyncRecoveryCopy& copy, SharedDate now) {
    return "Restore " + recoveryObjects(copy) + " as " + copy.deviceName + " had " +
           (copy.losses().projectIDs.size() + copy.losses().tabIDs.size() == 1 ? "it " : "them ") +
           timeAgo(copy.snapshot.modifiedAt(), now) + "?";
}

SyncSidebar::SyncSidebar(
    CloudSyncCoordinator* sync, QWidget* sidebar,
    std::function<void(const ProjectRecord&)> openProject, ProjectCopyController* copy,
    std::function<std::optional<QString>(const QString&, const QString&, const QString&)>
        chooseFolder,
    WorkspaceStore* workspace)
    : QObject(sidebar),
      sync_(sync),
      openProject_(std::move(openProject)),
      copy_(copy),
      chooseFolder_(std::move(chooseFolder)),
      workspace_(workspace) {
    if (!chooseFolder_) {
        chooseFolder_ = [sidebar](const QString& title, const QString& message,
                                  const QString& prompt) -> std::optional<QString> {
            QFileDialog panel(sidebar->window(), title);
            panel.setFileMode(QFileDialog::Directory);
            panel.setOption(QFileDialog::ShowDirsOnly);
            panel.setLabelText(QFileDialog::Accept, prompt);
            panel.setToolTip(message);
            // The message is shown in the dialog itself, under its controls; the
            // desktop's own dialog has no place for it.
            panel.setOption(QFileDialog::DontUseNativeDialog);
            if (auto* grid = qobject_cast<QGridLayout*>(panel.layout())) {
                auto* words = new QLabel(message, &panel);
                words->setObjectName("sync.chooseFolder.message");
                words->setWordWrap(true);
                grid->addWidget(words, grid->rowCount(), 0, 1, grid->columnCount());
            }
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
    // The whole status is always readable: it wraps between words rather than
    // being cut, and the tooltip repeats it.
    statusText_->setWordWrap(true);
    statusRow_->installEventFilter(this);
    restore_ = new QPushButton(SyncTexts::restorePrevious(), statusRow_);
    restore_->setObjectName("sync.restorePrevious");
    restore_->setFlat(true);
    restore_->setToolTip(SyncTexts::restoreHelp());
    auto* more = new QToolButton(statusRow_);
    more->setObjectName("sync.statusMenuButton");
    more->setText(QString::fromUtf8("\u2026"));
    more->setAutoRaise(true);
    more->setPopupMode(QToolButton::InstantPopup);
    statusMenu_ = new QMenu(more);
    statusMenu_->setObjectName("sync.statusMenu");
    suspendedCount_ = statusMenu_->addAction(SyncTexts::suspendedTerminals(0));
    suspendedCount_->setObjectName("sync.statusMenu.suspended");
    suspendedCount_->setEnabled(false);
    more->setMenu(statusMenu_);
    more->setVisible(workspace != nullptr);
    row->addWidget(statusIcon_);
    row->addWidget(statusText_, 1);
    row->addWidget(restore_);
    row->addWidget(more);
    column->addLayout(row);
    if (workspace) {
        connect(workspace, &WorkspaceStore::suspendedPanesChanged, this,
                &SyncSidebar::updateStatus);
    }
    connect(restore_, &QPushButton::clicked, this, &SyncSidebar::offerRestore);
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
    statusText_->setToolTip(sync_->status().title());
    const bool notSetUp = sync_->status().kind == CloudSyncStatus::Kind::LocalOnly;
    statusRow_->setCursor(notSetUp ? Qt::PointingHandCursor : Qt::ArrowCursor);
    statusIcon_->setPixmap(symbolPixmap(sync_->status().systemImage(), 12));
    restore_->setVisible(sync_->recoveryCount() > 0);
    if (workspace_)
        suspendedCount_->setText(
            SyncTexts::suspendedTerminals(workspace_->suspendedPanes().size()));
}

bool SyncSidebar::eventFilter(QObject* watched, QEvent* event) {
    if (watched == statusRow_ && event->type() == QEvent::MouseButtonRelease && sync_ &&
        sync_->status().kind == CloudSyncStatus::Kind::LocalOnly) {
        emit syncSettingsRequested();
        return true;
    }
    return QObject::eventFilter(watched, event);
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

void SyncSidebar::offerRestore() {
    if (!sync_) return;
    const QList<SyncRecoveryCopy> copies = sync_->recoveryCopies();
    if (copies.isEmpty()) return;
    if (copies.size() == 1) return confirmRestore(copies[0].snapshot.revision());
    auto* menu = new QMenu(restore_);
    menu->setObjectName("sync.restoreMenu");
    menu->setAttribute(Qt::WA_DeleteOnClose);
    const SharedDate now = sharedDateNow();
    for (const auto& copy : copies) {
        const QUuid revision = copy.snapshot.revision();
        menu->addAction(SyncTexts::recoveryItem(copy, now), this,
                        [this, revision] { confirmRestore(revision); });
    }
    menu->popup(restore_->mapToGlobal(QPoint(0, restore_->height())));
}

void SyncSidebar::confirmRestore(const QUuid& revision) {
    if (!sync_) return;
    const QList<SyncRecoveryCopy> copies = sync_->recoveryCopies();
    const auto found = std::find_if(copies.begin(), copies.end(), [&](const SyncRecoveryCopy& c) {
        return c.snapshot.revision() == revision;
    });
    if (found == copies.end()) return;
    if (restoreDialog_) restoreDialog_->reject();
    auto* dialog = new QMessageBox(statusRow_->window());
    dialog->setObjectName("sync.restore");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(SyncTexts::restorePrevious());
    dialog->setText(SyncTexts::restoreQuestion(*found, sharedDateNow()));
    dialog->setInformativeText(SyncTexts::restoreDetail());
    QPushButton* restore = dialog->addButton(SyncTexts::restoreButton(), QMessageBox::AcceptRole);
    restore->setObjectName("sync.restore.restore");
    QPushButton* cancel = dialog->addButton(SyncTexts::cancel(), QMessageBox::RejectRole);
    cancel->setObjectName("sync.restore.cancel");
    dialog->setEscapeButton(cancel);
    dialog->setDefaultButton(cancel);
    connect(dialog, &QMessageBox::finished, this, [this, dialog, restore, revision] {
        if (dialog->clickedButton() != restore || !sync_) return;
        const QList<SyncRecoveryCopy> now = sync_->recoveryCopies();
        for (int i = 0; i < now.size(); ++i) {
            if (now[i].snapshot.revision() == revision) {
                sync_->restoreRecovery(i);
                return;
            }
        }
    });
    restoreDialog_ = dialog;
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
                                ProjectCopyController* copy, WorkspaceStore* workspace) {
    auto* content = qobject_cast<ContentView*>(window);
    auto* sidebar = window->findChild<QWidget*>(QStringLiteral("sidebar"));
    if (!content || !sidebar) return nullptr;
    auto* pieces = new SyncSidebar(&sync, sidebar, std::move(openProject), copy, {}, workspace);
    if (copy) new ProjectCopySheet(copy, window);
    content->setSyncPieces(pieces->fromCloudSection(), pieces->statusRow());
    return pieces;
}

}  // namespace hl
