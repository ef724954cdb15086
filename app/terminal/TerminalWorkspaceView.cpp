// The control row and the selected tab's panes.
#include "TerminalWorkspaceView.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QStackedLayout>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWheelEvent>

#include "CommandKeys.h"
#include "PaneLayoutView.h"
#include "SymbolIcon.h"
#include "XtermCoordinator.h"

namespace hl {

namespace {

// A line between controls: 22 points high in a row, or across a column.
QFrame* separator(Qt::Orientation orientation, QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(orientation == Qt::Vertical ? QFrame::VLine : QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    QPalette palette = line->palette();
    QColor color = palette.color(QPalette::WindowText);
    color.setAlphaF(0.2);
    palette.setColor(QPalette::WindowText, color);
    line->setPalette(palette);
    if (orientation == Qt::Vertical) line->setFixedHeight(22);
    return line;
}

// A frame with rounded corners filled with one colour.
class RoundedPanel : public QWidget {
  public:
    RoundedPanel(QColor fill, QWidget* parent) : QWidget(parent), fill_(fill) {}
    void setFill(QColor fill) {
        fill_ = fill;
        update();
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        if (fill_.alpha() == 0) return;
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(fill_);
        p.drawRoundedRect(QRectF(rect()), 6, 6);
    }

  private:
    QColor fill_;
};

QColor withAlpha(QColor color, double alpha) {
    color.setAlphaF(alpha);
    return color;
}

}  // namespace

TerminalWorkspaceView::TerminalWorkspaceView(WorkspaceStore* workspace, QWidget* parent)
    : QWidget(parent), workspace_(workspace) {
    setObjectName("workspace.view");
    column_ = new QVBoxLayout(this);
    column_->setContentsMargins(0, 0, 0, 0);
    column_->setSpacing(0);

    auto* controls = new QWidget(this);
    controls->setObjectName("workspace.controls");
    auto* row = new QHBoxLayout(controls);
    row->setContentsMargins(8, 6, 8, 6);
    row->setSpacing(6);

    tabScroll_ = new QScrollArea(controls);
    tabScroll_->setObjectName("tabs.strip");
    tabScroll_->setFrameShape(QFrame::NoFrame);
    tabScroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    tabScroll_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    tabScroll_->setWidgetResizable(true);
    tabScroll_->setMinimumWidth(1);
    tabScroll_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    tabScroll_->setFixedHeight(30);
    tabScroll_->viewport()->installEventFilter(this);
    row->addWidget(tabScroll_, 1);
    row->addWidget(separator(Qt::Vertical, controls));

    // Search controls.
    auto* search = new RoundedPanel(
        withAlpha(QApplication::palette().color(QPalette::WindowText), 0.07), controls);
    auto* searchRow = new QHBoxLayout(search);
    searchRow->setContentsMargins(6, 4, 6, 4);
    searchRow->setSpacing(3);
    auto* glass = new QLabel(search);
    glass->setPixmap(
        symbolIcon("magnifyingglass", QApplication::palette().color(QPalette::PlaceholderText))
            .pixmap(16, 16));
    find_ = new QLineEdit(search);
    find_->setObjectName("control.find");
    find_->setPlaceholderText(QStringLiteral("Find"));
    find_->setAccessibleName(QStringLiteral("Find in terminal"));
    find_->setFrame(false);
    find_->setMinimumWidth(72);
    find_->setMaximumWidth(140);
    find_->setText(workspace_->searchQuery());
    connect(find_, &QLineEdit::textEdited, workspace_, &WorkspaceStore::setSearchQuery);
    connect(find_, &QLineEdit::returnPressed, workspace_, [this] { workspace_->search(false); });
    findPrevious_ = iconButton("control.findPrevious", "chevron.up", "Find previous",
                               helpTextWithKey("Find previous", Command::FindPrevious));
    findNext_ = iconButton("control.findNext", "chevron.down", "Find next",
                           helpTextWithKey("Find next", Command::FindNext));
    connect(findPrevious_, &QToolButton::clicked, workspace_, [this] { workspace_->search(true); });
    connect(findNext_, &QToolButton::clicked, workspace_, [this] { workspace_->search(false); });
    searchRow->addWidget(glass);
    searchRow->addWidget(find_);
    searchRow->addWidget(findPrevious_);
    searchRow->addWidget(findNext_);
    row->addWidget(search);
    row->addWidget(separator(Qt::Vertical, controls));

    // Navigation.
    struct Control {
        const char* objectName;
        const char* symbol;
        const char* label;
        const char* help;
        Command command;
        std::function<void()> action;
    };
    const std::vector<Control> navigation = {
        {"control.previousTab", "chevron.left", "Previous tab", "Previous tab",
         Command::SelectPreviousTab, [this] { workspace_->selectAdjacentTab(-1); }},
        {"control.nextTab", "chevron.right", "Next tab", "Next tab", Command::SelectNextTab,
         [this] { workspace_->selectAdjacentTab(1); }},
        {"control.previousPane", "chevron.left.square", "Previous pane", "Previous pane",
         Command::SelectPreviousPane, [this] { workspace_->selectAdjacentPane(-1); }},
        {"control.nextPane", "chevron.right.square", "Next pane", "Next pane",
         Command::SelectNextPane, [this] { workspace_->selectAdjacentPane(1); }},
    };
    const std::vector<Control> paneControls = {
        {"control.splitRight", "rectangle.split.2x1", "Split right", "Split right",
         Command::SplitRight, [this] { workspace_->split(true); }},
        {"control.splitDown", "rectangle.split.1x2", "Split down", "Split down", Command::SplitDown,
         [this] { workspace_->split(false); }},
        {"control.closePane", "xmark.square", "Close selected pane", "Close selected pane",
         Command::CloseSelectedPane, [this] { workspace_->closeSelectedPane(); }},
    };
    auto addGroup = [&](const std::vector<Control>& group) {
        for (const auto& each : group) {
            auto* button = iconButton(each.objectName, each.symbol, each.label,
                                      helpTextWithKey(each.help, each.command));
            connect(button, &QToolButton::clicked, workspace_, each.action);
            row->addWidget(button);
        }
    };
    addGroup(navigation);
    row->addWidget(separator(Qt::Vertical, controls));
    addGroup(paneControls);

    column_->addWidget(controls);
    column_->addWidget(separator(Qt::Horizontal, this));

    // The panes of every kept tab, one shown at a time; the first page is empty.
    auto* paneHost = new QWidget(this);
    paneHost->setObjectName("workspace.panes");
    panes_ = new QStackedLayout(paneHost);
    panes_->addWidget(new QWidget(paneHost));
    column_->addWidget(paneHost, 1);

    connect(workspace_, &WorkspaceStore::tabsChanged, this,
            &TerminalWorkspaceView::rebuildTabStrip);
    connect(workspace_, &WorkspaceStore::selectedTabIDChanged, this,
            &TerminalWorkspaceView::rebuildTabStrip);
    connect(workspace_, &WorkspaceStore::activeWorkspaceIDChanged, this,
            &TerminalWorkspaceView::rebuildTabStrip);
    connect(workspace_, &WorkspaceStore::bellMarksChanged, this,
            &TerminalWorkspaceView::rebuildTabStrip);
    connect(workspace_, &WorkspaceStore::searchQueryChanged, this,
            &TerminalWorkspaceView::searchQueryChanged);
    rebuildTabStrip();
    searchQueryChanged();
}

QToolButton* TerminalWorkspaceView::iconButton(const QString& objectName, const QString& symbol,
                                               const QString& label, const QString& help) {
    auto* button = new QToolButton(this);
    button->setObjectName(objectName);
    button->setAutoRaise(true);
    button->setIcon(symbolIcon(symbol));
    button->setIconSize(QSize(16, 16));
    button->setAccessibleName(label);
    button->setToolTip(help);
    button->setFocusPolicy(Qt::NoFocus);
    return button;
}

void TerminalWorkspaceView::setTab(TerminalTab* tab) {
    if (tab == tab_ && (paneLayout_ || !tab)) return;
    tab_ = tab;
    paneLayout_ = tab ? layoutFor(tab) : nullptr;
    panes_->setCurrentWidget(paneLayout_ ? static_cast<QWidget*>(paneLayout_) : panes_->widget(0));
    dropLeastRecentlyShown();
}

void TerminalWorkspaceView::setKeptPaneLimit(int limit) {
    keptPaneLimit_ = limit;
    dropLeastRecentlyShown();
}

PaneLayoutView* TerminalWorkspaceView::layoutFor(TerminalTab* tab) {
    for (auto& each : kept_) {
        if (each.tab == tab && each.view) {
            each.shownAt = ++showCount_;
            return each.view;
        }
    }
    auto* view = new PaneLayoutView(
        tab, [this](const QUuid& id) { workspace_->userSelectedPane(id); },
        [this](const QUuid& id, double ratio) { workspace_->setSplitRatio(id, ratio); });
    panes_->addWidget(view);
    kept_.push_back({tab, view, ++showCount_});
    // A tab that leaves the model takes its terminals' views with it.
    QPointer<PaneLayoutView> guarded = view;
    connect(tab, &QObject::destroyed, this, [this, guarded] {
        if (guarded) dropLayout(guarded);
    });
    return view;
}

void TerminalWorkspaceView::dropLayout(PaneLayoutView* view) {
    if (!view) return;
    std::erase_if(kept_, [&](const KeptLayout& each) { return each.view == view || !each.view; });
    if (paneLayout_ == view) {
        paneLayout_.clear();
        tab_.clear();
        panes_->setCurrentIndex(0);
    }
    panes_->removeWidget(view);
    view->hide();
    // Deleted on the next turn: the close that ended its tab may have come from
    // a key press still being delivered inside it.
    view->deleteLater();
}

void TerminalWorkspaceView::dropLeastRecentlyShown() {
    auto total = [this] {
        int count = 0;
        for (const auto& each : kept_)
            if (each.tab) count += static_cast<int>(each.tab->paneCount());
        return count;
    };
    while (total() > keptPaneLimit_) {
        auto oldest = kept_.end();
        for (auto it = kept_.begin(); it != kept_.end(); ++it) {
            if (it->view == paneLayout_) continue;
            if (oldest == kept_.end() || it->shownAt < oldest->shownAt) oldest = it;
        }
        if (oldest == kept_.end()) return;
        if (!oldest->view) {
            kept_.erase(oldest);
            continue;
        }
        dropLayout(oldest->view);
    }
}

void TerminalWorkspaceView::searchQueryChanged() {
    const QString& query = workspace_->searchQuery();
    if (find_->text() != query) find_->setText(query);
    findPrevious_->setEnabled(!query.isEmpty());
    findNext_->setEnabled(!query.isEmpty());
}

QWidget* TerminalWorkspaceView::tabEntry(TerminalTab* tab) {
    const bool selected = workspace_->selectedTabID() == tab->id();
    auto* entry = new RoundedPanel(
        selected ? withAlpha(QApplication::palette().color(QPalette::Highlight), 0.16)
                 : QColor(Qt::transparent),
        nullptr);
    entry->setObjectName("tab." + tab->id().toString(QUuid::WithoutBraces));
    auto* row = new QHBoxLayout(entry);
    row->setContentsMargins(7, 4, 7, 4);
    row->setSpacing(3);

    if (tab->id() == renaming_) {
        auto* field = new QLineEdit(tab->title(), entry);
        field->setObjectName("tab.rename");
        field->setAccessibleName("Rename " + tab->title() + " tab");
        field->setMinimumWidth(120);
        field->selectAll();
        field->installEventFilter(this);
        connect(field, &QLineEdit::returnPressed, this, [this] { endRename(true); });
        row->addWidget(field);
        renameField_ = field;
        return entry;
    }
    auto* select = new QToolButton(entry);
    select->setObjectName("tab.select");
    select->setAutoRaise(true);
    select->setFocusPolicy(Qt::NoFocus);
    select->setAccessibleName("Select " + tab->title() + " tab");
    select->setToolButtonStyle(Qt::ToolButtonTextOnly);
    // A bell that rang out of view shows as a dot before the title.
    const QString shown = label(tab);
    select->setText(select->fontMetrics().elidedText(
        tab->hasUnseenBell() ? QStringLiteral("● ") + shown : shown, Qt::ElideMiddle,
        maximumTabLabelWidth));
    if (select->text() != shown) select->setToolTip(shown);
    const QUuid id = tab->id();
    select->setProperty("tabID", id);
    select->installEventFilter(this);
    connect(select, &QToolButton::clicked, workspace_, [this, id] { workspace_->selectTab(id); });
    row->addWidget(select);
    if (tab->paneCount() > 1) {
        auto* count = new QLabel(QString::number(tab->paneCount()), entry);
        count->setObjectName("tab.paneCount");
        count->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        count->setForegroundRole(QPalette::PlaceholderText);
        row->addWidget(count);
    }
    auto* close = iconButton("tab.close", "xmark", "Close " + tab->title(), "Close tab");
    close->setParent(entry);
    close->setIconSize(QSize(12, 12));
    connect(close, &QToolButton::clicked, workspace_, [this, id] { workspace_->closeTab(id); });
    row->addWidget(close);
    return entry;
}

void TerminalWorkspaceView::beginRename(const QUuid& id) {
    if (renaming_ == id) return;
    if (!renaming_.isNull()) endRename(false);
    renaming_ = id;
    rebuildTabStrip();
    if (!renameField_) {
        renaming_ = QUuid();
        return;
    }
    renameField_->setFocus(Qt::OtherFocusReason);
    renameField_->selectAll();
    tabScroll_->ensureWidgetVisible(renameField_);
}

void TerminalWorkspaceView::endRename(bool commit) {
    if (renaming_.isNull()) return;
    const QUuid id = renaming_;
    const QString text = renameField_ ? renameField_->text() : QString();
    const bool hadKeyboard = renameField_ && renameField_->hasFocus();
    renaming_ = QUuid();
    renameField_.clear();
    if (commit) workspace_->renameTab(id, text);
    rebuildTabStrip();
    // The keyboard goes back to the selected terminal.
    if (!hadKeyboard) return;
    if (TerminalTab* selected = workspace_->selectedTab()) {
        const auto pane = selected->selectedPaneID();
        TerminalPane* each = pane ? selected->pane(*pane) : nullptr;
        if (auto* terminal =
                each ? qobject_cast<XtermCoordinator*>(each->controller().surface()) : nullptr)
            terminal->takeKeyboard();
    }
}

bool TerminalWorkspaceView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == renameField_) {
        if (event->type() == QEvent::KeyPress &&
            static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
            QTimer::singleShot(0, this, [this] { endRename(false); });
            return true;
        }
        if (event->type() == QEvent::FocusOut &&
            static_cast<QFocusEvent*>(event)->reason() != Qt::PopupFocusReason) {
            QTimer::singleShot(0, this, [this] { endRename(false); });
        }
    } else if (event->type() == QEvent::MouseButtonDblClick) {
        const QUuid id = watched->property("tabID").toUuid();
        if (!id.isNull()) {
            QTimer::singleShot(0, this, [this, id] { beginRename(id); });
            return true;
        }
    } else if (watched == tabScroll_->viewport() && event->type() == QEvent::Wheel) {
        // The wheel moves the strip sideways, so that every tab can be reached.
        auto* wheel = static_cast<QWheelEvent*>(event);
        const QPoint delta = wheel->angleDelta();
        QScrollBar* bar = tabScroll_->horizontalScrollBar();
        bar->setValue(bar->value() - (delta.x() != 0 ? delta.x() : delta.y()));
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

QString TerminalWorkspaceView::label(TerminalTab* tab) const {
    std::optional<QString> first = QStringLiteral("Scratch");
    if (tab->projectID()) first = projectName ? projectName(*tab->projectID()) : std::nullopt;
    if (!first || tab->title() != *first) return tab->title();
    const auto selected = tab->selectedPaneID();
    TerminalPane* pane = selected ? tab->pane(*selected) : nullptr;
    const QString title = pane ? pane->controller().title().trimmed() : QString();
    return title.isEmpty() ? tab->title() : title;
}

void TerminalWorkspaceView::rebuildTabStrip() {
    // The strip waits while a tab is renamed: the field keeps the keyboard.
    if (!renaming_.isNull() && renameField_) {
        if (!rebuildIsWaiting_) {
            rebuildIsWaiting_ = true;
            QTimer::singleShot(200, this, [this] {
                rebuildIsWaiting_ = false;
                rebuildTabStrip();
            });
        }
        return;
    }
    for (const auto& connection : tabConnections_)
        disconnect(connection);
    tabConnections_.clear();
    if (tabStrip_) tabStrip_->deleteLater();

    auto* strip = new QWidget();
    auto* row = new QHBoxLayout(strip);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(4);
    for (TerminalTab* tab : workspace_->visibleTabs()) {
        row->addWidget(tabEntry(tab));
        // A new title or pane count redraws the strip on the next turn.
        auto later = [this] {
            QTimer::singleShot(0, this, &TerminalWorkspaceView::rebuildTabStrip);
        };
        tabConnections_.push_back(connect(tab, &TerminalTab::titleChanged, this, later));
        tabConnections_.push_back(connect(tab, &TerminalTab::panesChanged, this, later));
        // The label follows the selected terminal's title.
        tabConnections_.push_back(connect(tab, &TerminalTab::selectedPaneIDChanged, this, later));
        for (TerminalPane* pane : tab->panes()) {
            tabConnections_.push_back(
                connect(&pane->controller(), &TerminalController::titleChanged, this, later));
        }
    }
    auto* add = iconButton("tabs.new", "plus", "New terminal tab",
                           helpTextWithKey("New terminal in " + workspace_->activeWorkspaceTitle(),
                                           Command::NewTerminal));
    add->setParent(strip);
    connect(add, &QToolButton::clicked, workspace_, [this] { workspace_->newTerminal(); });
    row->addWidget(add);
    row->addStretch(1);
    tabStrip_ = strip;
    tabScroll_->takeWidget();
    tabScroll_->setWidget(strip);
    // The selected tab stays in view.
    QPointer<QWidget> selected;
    for (auto* entry : strip->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly)) {
        if (entry->objectName() ==
            "tab." + workspace_->selectedTabID().value_or(QUuid()).toString(QUuid::WithoutBraces))
            selected = entry;
    }
    if (renameField_) selected = renameField_->parentWidget();
    if (selected) {
        QTimer::singleShot(0, this, [this, selected] {
            if (selected && tabScroll_->widget() == selected->parentWidget())
                tabScroll_->ensureWidgetVisible(selected, 8, 0);
        });
    }
}

}  // namespace hl
