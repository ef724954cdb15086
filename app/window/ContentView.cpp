// The sidebar, the detail column and the project dialogs.
#include "ContentView.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDatabase>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QSplitter>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include "ContentTexts.h"
#include "ElidedLabel.h"
#include "SymbolIcon.h"
#include "TerminalWorkspaceView.h"

namespace hl {

namespace {

const QColor errorRed(0xd7, 0x30, 0x2a);

QColor accent(double alpha) {
    QColor color = QApplication::palette().color(QPalette::Highlight);
    color.setAlphaF(alpha);
    return color;
}

QFrame* horizontalLine(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

QFont captionFont(bool monospaced = false) {
    QFont font =
        monospaced ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QApplication::font();
    font.setPointSizeF(std::max(7.0, QApplication::font().pointSizeF() - 1.5));
    return font;
}

QLabel* iconLabel(const QString& symbol, QWidget* parent, int size = 16, QColor color = QColor()) {
    auto* label = new QLabel(parent);
    label->setPixmap(symbolIcon(symbol, color).pixmap(size, size));
    label->setFixedSize(size, size);
    return label;
}

// A plain button that is a whole sidebar row: its children draw the content,
// it draws the highlight.
class SidebarRow : public QAbstractButton {
  public:
    explicit SidebarRow(QWidget* parent) : QAbstractButton(parent) {
        setFocusPolicy(Qt::NoFocus);
        setAttribute(Qt::WA_Hover);
    }
    void setHighlighted(bool highlighted) {
        highlighted_ = highlighted;
        update();
    }
    QSize sizeHint() const override { return layout() ? layout()->sizeHint() : QSize(); }
    QSize minimumSizeHint() const override { return layout() ? layout()->minimumSize() : QSize(); }

  protected:
    void paintEvent(QPaintEvent*) override {
        QColor fill = Qt::transparent;
        if (highlighted_) {
            fill = accent(0.15);
        } else if (underMouse() && isEnabled()) {
            fill = accent(0.06);
        }
        if (fill.alpha() == 0) return;
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(fill);
        p.drawRoundedRect(QRectF(rect()), 6, 6);
    }

  private:
    bool highlighted_ = false;
};

}  // namespace

ContentView::ContentView(ProjectCatalog* catalog, WorkspaceStore* workspace, AppUpdater* updater,
                         QWidget* parent)
    : QWidget(parent),
      catalog_(catalog),
      workspace_(workspace),
      updater_(updater ? updater : new AppUpdater(false, {}, this)) {
    setObjectName("content");
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    splitter_ = new QSplitter(Qt::Horizontal, this);
    splitter_->setChildrenCollapsible(false);
    splitter_->setHandleWidth(1);
    splitter_->addWidget(buildSidebar());

    detail_ = new QStackedWidget(splitter_);
    detail_->setObjectName("detail");
    detail_->addWidget(buildEmptyState());
    workspaceView_ = new TerminalWorkspaceView(workspace_, detail_);
    workspaceView_->projectName = [this](const QString& id) -> std::optional<QString> {
        for (const ProjectRecord& project : catalog_->projects()) {
            if (project.id == id) return project.name;
        }
        return std::nullopt;
    };
    detail_->addWidget(workspaceView_);
    splitter_->addWidget(detail_);
    splitter_->setStretchFactor(0, 0);
    splitter_->setStretchFactor(1, 1);
    splitter_->setSizes({290, 1070});
    layout->addWidget(splitter_);

    connect(catalog_, &ProjectCatalog::projectsChanged, this, [this] {
        rebuildSidebarList();
        refreshDetail();
    });
    connect(catalog_, &ProjectCatalog::selectedProjectIDChanged, this,
            &ContentView::rebuildSidebarList);
    connect(catalog_, &ProjectCatalog::errorMessageChanged, this, &ContentView::refreshErrorRow);
    connect(workspace_, &WorkspaceStore::errorMessageChanged, this, &ContentView::refreshErrorRow);
    connect(workspace_, &WorkspaceStore::bellMarksChanged, this, &ContentView::rebuildSidebarList);
    connect(workspace_, &WorkspaceStore::tabsChanged, this, [this] {
        rebuildSidebarList();
        refreshDetail();
    });
    connect(workspace_, &WorkspaceStore::activeWorkspaceIDChanged, this, [this] {
        syncCatalogSelection();
        rebuildSidebarList();
        refreshDetail();
    });
    connect(workspace_, &WorkspaceStore::selectedTabIDChanged, this, &ContentView::refreshDetail);

    syncCatalogSelection();
    rebuildSidebarList();
    refreshErrorRow();
    refreshDetail();
}

QWidget* ContentView::buildSidebar() {
    auto* sidebar = new QWidget(this);
    sidebar->setObjectName("sidebar");
    sidebar->setMinimumWidth(240);
    sidebar->setMaximumWidth(380);
    auto* column = new QVBoxLayout(sidebar);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    auto* header = new QWidget(sidebar);
    auto* headerRow = new QHBoxLayout(header);
    headerRow->setContentsMargins(12, 8, 8, 8);
    auto* title = new QLabel(QStringLiteral("Workspaces"), header);
    QFont headline = title->font();
    headline.setBold(true);
    title->setFont(headline);
    auto* add = new QToolButton(header);
    add->setObjectName("sidebar.addProject");
    add->setAutoRaise(true);
    add->setIcon(symbolIcon("folder.badge.plus"));
    add->setToolTip(QStringLiteral("Add Project"));
    add->setAccessibleName(QStringLiteral("Add Project"));
    connect(add, &QToolButton::clicked, this, [this] { addProject(); });
    headerRow->addWidget(title);
    headerRow->addStretch(1);
    headerRow->addWidget(add);
    column->addWidget(header);
    column->addWidget(horizontalLine(sidebar));

    auto* scroll = new QScrollArea(sidebar);
    scroll->setObjectName("sidebar.list");
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* holder = new QWidget(scroll);
    listColumn_ = new QVBoxLayout(holder);
    listColumn_->setContentsMargins(8, 8, 8, 8);
    listColumn_->addStretch(1);
    scroll->setWidget(holder);
    column->addWidget(scroll, 1);
    column->addWidget(buildSidebarFooter(sidebar));

    errorRow_ = new QWidget(sidebar);
    errorRow_->setObjectName("sidebar.error");
    auto* errorColumn = new QVBoxLayout(errorRow_);
    errorColumn->setContentsMargins(0, 0, 0, 0);
    errorColumn->addWidget(horizontalLine(errorRow_));
    auto* errorLine = new QHBoxLayout();
    errorLine->setContentsMargins(12, 6, 12, 8);
    errorLine->addWidget(iconLabel("exclamationmark.triangle.fill", errorRow_, 14, errorRed), 0,
                         Qt::AlignTop);
    errorText_ = new QLabel(errorRow_);
    errorText_->setObjectName("sidebar.errorText");
    errorText_->setWordWrap(true);
    QFont semibold = captionFont();
    semibold.setWeight(QFont::DemiBold);
    errorText_->setFont(semibold);
    QPalette red = errorText_->palette();
    red.setColor(QPalette::WindowText, errorRed);
    errorText_->setPalette(red);
    errorLine->addWidget(errorText_, 1);
    errorColumn->addLayout(errorLine);
    startOverButton_ = new QPushButton(QStringLiteral("Keep a Copy and Start Over…"), errorRow_);
    startOverButton_->setObjectName("sidebar.startOver");
    startOverButton_->setVisible(false);
    connect(startOverButton_, &QPushButton::clicked, this, [this] {
        if (startOver_) startOver_();
    });
    auto* startOverLine = new QHBoxLayout();
    startOverLine->setContentsMargins(12, 0, 12, 8);
    startOverLine->addWidget(startOverButton_);
    startOverLine->addStretch(1);
    errorColumn->addLayout(startOverLine);
    column->addWidget(errorRow_);
    return sidebar;
}

QWidget* ContentView::buildEmptyState() {
    auto* page = new QWidget(this);
    page->setObjectName("empty");
    page->setFocusPolicy(Qt::ClickFocus);
    emptyPage_ = page;
    auto* column = new QVBoxLayout(page);
    column->addStretch(1);
    auto* icon = new QLabel(page);
    icon->setPixmap(
        symbolPixmap("terminal", 48, QApplication::palette().color(QPalette::PlaceholderText)));
    icon->setAlignment(Qt::AlignCenter);
    emptyTitle_ = new QLabel(page);
    emptyTitle_->setObjectName("empty.title");
    QFont big = emptyTitle_->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    emptyTitle_->setFont(big);
    emptyTitle_->setAlignment(Qt::AlignCenter);
    emptyDescription_ = new QLabel(page);
    emptyDescription_->setObjectName("empty.description");
    emptyDescription_->setAlignment(Qt::AlignCenter);
    emptyDescription_->setForegroundRole(QPalette::PlaceholderText);
    emptyAction_ = new QPushButton(page);
    emptyAction_->setObjectName("empty.action");
    connect(emptyAction_, &QPushButton::clicked, this, [this] {
        if (catalog_->projects().empty()) {
            addProject();
        } else {
            openScratchWorkspace();
        }
    });
    column->addWidget(icon);
    column->addSpacing(8);
    column->addWidget(emptyTitle_);
    column->addWidget(emptyDescription_);
    column->addSpacing(8);
    column->addWidget(emptyAction_, 0, Qt::AlignCenter);
    column->addStretch(1);
    return page;
}

void ContentView::refreshDetail() {
    if (TerminalTab* tab = workspace_->selectedTab()) {
        detail_->setCurrentWidget(workspaceView_);
        workspaceView_->setTab(tab);
        return;
    }
    workspaceView_->setTab(nullptr);
    const EmptyStateText text = emptyStateText(catalog_->projects().empty());
    emptyTitle_->setText(text.title);
    emptyDescription_->setText(text.description);
    emptyAction_->setText(text.button);
    QWidget* focus = QApplication::focusWidget();
    const bool terminalHadKeyboard = focus && workspaceView_->isAncestorOf(focus);
    detail_->setCurrentIndex(0);
    if (terminalHadKeyboard || QApplication::focusWidget() == emptyAction_)
        emptyPage_->setFocus(Qt::OtherFocusReason);
}

void ContentView::refreshErrorRow() {
    const auto message =
        catalog_->errorMessage() ? catalog_->errorMessage() : workspace_->errorMessage();
    errorText_->setText(message.value_or(QString()));
    const bool offered = startOverIsOffered_ && startOverIsOffered_();
    startOverButton_->setVisible(offered);
    errorRow_->setVisible(message.has_value() || offered);
}

void ContentView::setStartOver(std::function<bool()> isOffered, std::function<void()> run) {
    startOverIsOffered_ = std::move(isOffered);
    startOver_ = std::move(run);
    refreshErrorRow();
}

void ContentView::rebuildSidebarList() {
    // The sync section moves to the new list; the old one goes with its rows.
    const bool sectionShown = syncSection_ && !syncSection_->isHidden();
    if (syncSection_) syncSection_->setParent(nullptr);
    if (listContent_) {
        // Unparented at once so that nothing finds the old rows; deleted later
        // because one of them may be the button being clicked.
        listColumn_->removeWidget(listContent_);
        listContent_->hide();
        listContent_->setParent(nullptr);
        listContent_->deleteLater();
    }
    auto* content = new QWidget();
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(2);
    column->addWidget(scratchRow());
    column->addSpacing(10);
    if (syncSection_) {
        column->addWidget(syncSection_);
        syncSection_->setVisible(sectionShown);
    }
    if (catalog_->projects().empty()) {
        auto* first = new SidebarRow(content);
        first->setObjectName("sidebar.addFirstProject");
        first->setAccessibleName(QStringLiteral("Add your first project…"));
        auto* row = new QHBoxLayout(first);
        row->setContentsMargins(6, 5, 6, 5);
        row->addWidget(iconLabel("folder.badge.plus", first));
        row->addWidget(new QLabel(QStringLiteral("Add your first project…"), first), 1);
        connect(first, &QAbstractButton::clicked, this, [this] { addProject(); });
        column->addWidget(first);
    } else {
        auto* section = new QLabel(QStringLiteral("Projects"), content);
        section->setObjectName("sidebar.projectsSection");
        QFont bold = captionFont();
        bold.setBold(true);
        section->setFont(bold);
        section->setForegroundRole(QPalette::PlaceholderText);
        section->setContentsMargins(6, 0, 0, 2);
        column->addWidget(section);
        for (const auto& project : catalog_->projects())
            column->addWidget(projectRow(project));
    }
    listContent_ = content;
    listColumn_->insertWidget(0, content);
}

QWidget* ContentView::scratchRow() {
    const auto choice = scratchWorkspaceChoice();
    auto* button = new SidebarRow(nullptr);
    button->setObjectName("workspace.scratch");
    button->setAccessibleName(QStringLiteral("Scratch"));
    button->setToolTip(scratchRowHelp(choice));
    button->setHighlighted(choice && workspace_->activeWorkspaceID() == choice->id);
    button->setEnabled(choice.has_value() || workspace_->workspaceMutationsAreAllowed());
    auto* row = new QHBoxLayout(button);
    row->setContentsMargins(6, 5, 6, 5);
    row->setSpacing(8);
    row->addWidget(iconLabel("scribble.variable", button), 0, Qt::AlignTop);
    auto* texts = new QVBoxLayout();
    texts->setSpacing(1);
    const bool rang = workspace_->workspaceHasUnseenBell(scratchWorkspaceID);
    texts->addWidget(
        new QLabel(rang ? QStringLiteral("● Scratch") : QStringLiteral("Scratch"), button));
    auto* subtitle = new QLabel(scratchRowSubtitle(choice), button);
    subtitle->setObjectName("workspace.scratch.subtitle");
    subtitle->setFont(captionFont());
    subtitle->setForegroundRole(QPalette::PlaceholderText);
    texts->addWidget(subtitle);
    row->addLayout(texts, 1);
    if (!choice) row->addWidget(iconLabel("plus", button, 12));
    connect(button, &QAbstractButton::clicked, this, [this] { openScratchWorkspace(); });
    return button;
}

QWidget* ContentView::projectRow(const ProjectRecord& project) {
    auto* holder = new QWidget();
    auto* line = new QHBoxLayout(holder);
    line->setContentsMargins(0, 0, 0, 0);
    line->setSpacing(2);

    auto* button = new SidebarRow(holder);
    button->setObjectName("workspace.project." + project.id);
    button->setAccessibleName(project.name);
    button->setHighlighted(catalog_->selectedProjectID() == project.id);
    auto* texts = new QVBoxLayout(button);
    texts->setContentsMargins(6, 5, 6, 5);
    texts->setSpacing(1);
    auto* title = new QHBoxLayout();
    title->setSpacing(6);
    title->addWidget(iconLabel("folder", button));
    const bool rang = workspace_->workspaceHasUnseenBell(projectWorkspaceID(project.id));
    auto* name = new QLabel(rang ? QStringLiteral("● ") + project.name : project.name, button);
    name->setObjectName("project.name");
    title->addWidget(name, 1);
    texts->addLayout(title);
    auto* root = new ElidedLabel(button);
    root->setObjectName("project.root");
    root->setFont(captionFont(true));
    root->setFullText(project.root);
    QPalette palette = root->palette();
    if (project.rootIsAvailable()) {
        root->setForegroundRole(QPalette::PlaceholderText);
    } else {
        palette.setColor(QPalette::WindowText, errorRed);
        root->setPalette(palette);
        root->setForegroundRole(QPalette::WindowText);
    }
    texts->addWidget(root);
    connect(button, &QAbstractButton::clicked, this, [this, project] { openProject(project); });
    line->addWidget(button, 1);

    auto* actions = new QToolButton(holder);
    actions->setObjectName("project.actions." + project.id);
    actions->setAccessibleName(QStringLiteral("Project actions"));
    actions->setToolTip(QStringLiteral("Project actions"));
    actions->setIcon(symbolIcon("ellipsis"));
    actions->setFixedSize(22, 22);
    actions->setAutoRaise(true);
    actions->setPopupMode(QToolButton::InstantPopup);
    actions->setStyleSheet(QStringLiteral("QToolButton::menu-indicator { image: none; }"));
    auto* menu = new QMenu(actions);
    QAction* rename = menu->addAction(QStringLiteral("Rename…"));
    rename->setObjectName("project.rename");
    rename->setEnabled(workspace_->workspaceMutationsAreAllowed());
    connect(rename, &QAction::triggered, this, [this, project] { presentRename(project); });
    QAction* remove = menu->addAction(QStringLiteral("Remove…"));
    remove->setObjectName("project.remove");
    connect(remove, &QAction::triggered, this, [this, project] { presentRemove(project); });
    actions->setMenu(menu);
    line->addWidget(actions, 0, Qt::AlignVCenter);
    return holder;
}

void ContentView::addProject() {
    if (!catalog_->mayChange("added")) return;
    QFileDialog panel(this, QStringLiteral("Add a project"));
    panel.setFileMode(QFileDialog::Directory);
    panel.setDirectory(QDir::homePath());
    panel.setOption(QFileDialog::ShowDirsOnly);
    panel.setLabelText(QFileDialog::Accept, QStringLiteral("Add Project"));
    if (panel.exec() != QDialog::Accepted || panel.selectedFiles().isEmpty()) return;
    const QString path = panel.selectedFiles().constFirst();
    addProject(QFileInfo(path).fileName(), path, newProjectID());
}

std::optional<ProjectRecord> ContentView::addProject(const QString& name, const QString& rawRoot,
                                                     const QString& id) {
    const auto record = catalog_->add(name, rawRoot, id);
    if (!record) return std::nullopt;
    if (!openProject(*record)) return std::nullopt;
    return record;
}

bool ContentView::openProject(const ProjectRecord& project) {
    const bool opened = workspace_->openProject(project);
    if (opened) {
        catalog_->select(project.id);
    } else {
        syncCatalogSelection();
    }
    return opened;
}

bool ContentView::renameProject(const ProjectRecord& project, const QString& name) {
    if (!workspace_->renameProject(project.id, name)) return false;
    return catalog_->rename(project.id, name).has_value();
}

bool ContentView::confirmRemoveProject(const ProjectRecord& project) {
    if (!workspace_->removeProject(project.id)) return false;
    return catalog_->remove(project.id).has_value();
}

std::optional<WorkspaceChoice> ContentView::scratchWorkspaceChoice() const {
    for (const auto& choice : workspace_->workspaceChoices()) {
        if (!choice.projectID) return choice;
    }
    return std::nullopt;
}

bool ContentView::openScratchWorkspace() {
    if (const auto choice = scratchWorkspaceChoice()) {
        workspace_->selectWorkspace(choice->id);
        catalog_->clearSelection();
        return workspace_->activeWorkspaceID() == choice->id;
    }
    workspace_->createScratchTerminal();
    syncCatalogSelection();
    const auto created = scratchWorkspaceChoice();
    return created && workspace_->activeWorkspaceID() == created->id;
}

void ContentView::syncCatalogSelection() {
    const auto active = workspace_->activeProjectID();
    if (active) {
        for (const auto& project : catalog_->projects()) {
            if (project.id == *active) {
                catalog_->select(project.id);
                return;
            }
        }
    }
    catalog_->clearSelection();
}

namespace {

// The frame both project dialogs share: a bold title, a wrapped message, an
// optional field, and "Cancel" beside a confirm button at the bottom right.
struct ProjectDialog {
    QDialog* dialog;
    QPushButton* cancel;
    QPushButton* confirm;
};

ProjectDialog makeProjectDialog(QWidget* parent, const char* objectName, const QString& title,
                                const QString& message, const QString& confirmText,
                                QWidget* field = nullptr) {
    auto* dialog = new QDialog(parent);
    dialog->setObjectName(objectName);
    dialog->setMinimumWidth(380);
    dialog->setWindowTitle(title);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    auto* column = new QVBoxLayout(dialog);
    auto* heading = new QLabel(title, dialog);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    auto* text = new QLabel(message, dialog);
    text->setObjectName("dialog.message");
    text->setWordWrap(true);
    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* cancel = new QPushButton(QStringLiteral("Cancel"), dialog);
    cancel->setObjectName("dialog.cancel");
    auto* confirm = new QPushButton(confirmText, dialog);
    confirm->setObjectName("dialog.confirm");
    buttons->addWidget(cancel);
    buttons->addWidget(confirm);
    column->addWidget(heading);
    column->addWidget(text);
    if (field) {
        field->setParent(dialog);
        column->addWidget(field);
    }
    column->addLayout(buttons);
    QObject::connect(cancel, &QPushButton::clicked, dialog, &QDialog::reject);
    return {dialog, cancel, confirm};
}

}  // namespace

void ContentView::presentRename(const ProjectRecord& project) {
    if (renameDialog_) renameDialog_->reject();
    renameValue_ = project.name;
    projectToRename_ = project;
    const bool allowed = workspace_->workspaceMutationsAreAllowed();

    auto* field = new QLineEdit(renameValue_);
    field->setObjectName("dialog.field");
    field->setPlaceholderText(QStringLiteral("Project name"));
    field->setAccessibleName(QStringLiteral("Project name"));
    connect(field, &QLineEdit::textChanged, this,
            [this](const QString& text) { renameValue_ = text; });
    auto [dialog, cancel, confirm] =
        makeProjectDialog(this, "dialog.rename", QStringLiteral("Rename Project"),
                          renameProjectMessage(allowed), QStringLiteral("Rename"), field);
    confirm->setDefault(true);
    confirm->setEnabled(allowed);
    connect(confirm, &QPushButton::clicked, dialog, [this, dialog] {
        if (!projectToRename_) return;
        if (renameProject(*projectToRename_, renameValue_)) {
            projectToRename_.reset();
            dialog->accept();
        }
    });
    connect(field, &QLineEdit::returnPressed, confirm, [confirm] {
        if (confirm->isEnabled()) confirm->click();
    });
    connect(dialog, &QDialog::finished, this, [this] { projectToRename_.reset(); });
    renameDialog_ = dialog;
    dialog->open();
    // The name is ready to be typed over.
    field->selectAll();
    field->setFocus(Qt::OtherFocusReason);
}

void ContentView::presentRemove(const ProjectRecord& project) {
    if (removeDialog_) removeDialog_->reject();
    projectToRemove_ = project;
    const bool allowed = workspace_->workspaceMutationsAreAllowed();

    auto [dialog, cancel, confirm] = makeProjectDialog(
        this, "dialog.remove", QStringLiteral("Remove Project?"),
        removeProjectMessage(project.name, allowed, workspace_->hasWorkspace(project.id)),
        QStringLiteral("Remove from Harborlattice"));
    cancel->setDefault(true);
    QPalette destructive = confirm->palette();
    // Red only while it can be pressed; disabled, it greys like any button.
    destructive.setColor(QPalette::Active, QPalette::ButtonText, errorRed);
    destructive.setColor(QPalette::Inactive, QPalette::ButtonText, errorRed);
    confirm->setPalette(destructive);
    confirm->setEnabled(allowed);
    connect(confirm, &QPushButton::clicked, dialog, [this, dialog] {
        if (projectToRemove_) {
            const ProjectRecord removing = *projectToRemove_;
            confirmRemoveProject(removing);
            syncCatalogSelection();
        }
        dialog->accept();
    });
    connect(dialog, &QDialog::finished, this, [this] { projectToRemove_.reset(); });
    removeDialog_ = dialog;
    dialog->open();
}

}  // namespace hl
