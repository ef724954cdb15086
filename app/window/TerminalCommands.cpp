// The Edit and View menus, the Find field's keys and count, and the window title.
#include "TerminalCommands.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenuBar>

#include <algorithm>

#include "CommandKeys.h"
#include "XtermWebView.h"

namespace hl {

namespace {

QKeySequence chord(Qt::KeyboardModifiers modifiers, Qt::Key key) {
    return QKeySequence(QKeyCombination(modifiers, key));
}

const Qt::KeyboardModifiers ctrl = Qt::ControlModifier;
const Qt::KeyboardModifiers ctrlShift = Qt::ControlModifier | Qt::ShiftModifier;

}  // namespace

TerminalCommands::TerminalCommands(QMainWindow* window, WorkspaceStore* workspace,
                                   std::shared_ptr<Preferences> defaults)
    : QObject(window), window_(window), workspace_(workspace), defaults_(std::move(defaults)) {
    const bool mac = runningKeyPlatform() == KeyPlatform::MacOS;
    QMenu* edit = window_->menuBar()->addMenu(QStringLiteral("Edit"));
    addAction(edit, "edit.copy", QStringLiteral("Copy"),
              mac ? QList{QKeySequence(QKeySequence::Copy)}
                  : QList{chord(ctrlShift, Qt::Key_C), chord(ctrl, Qt::Key_Insert)},
              [this] { copy(); });
    addAction(edit, "edit.paste", QStringLiteral("Paste"),
              mac ? QList{QKeySequence(QKeySequence::Paste)}
                  : QList{chord(ctrlShift, Qt::Key_V), chord(Qt::ShiftModifier, Qt::Key_Insert)},
              [this] { paste(); });
    addAction(edit, "edit.selectAll", QStringLiteral("Select All"),
              {mac ? QKeySequence(QKeySequence::SelectAll) : chord(ctrlShift, Qt::Key_A)},
              [this] { selectAll(); });
    edit->addSeparator();
    addAction(edit, "edit.find", QStringLiteral("Find…"),
              {mac ? QKeySequence(QKeySequence::Find) : chord(ctrlShift, Qt::Key_F)},
              [this] { find(); });

    // The zoom keys of Linux terminals; "+" is typed with Shift on most layouts.
    QMenu* view = window_->menuBar()->addMenu(QStringLiteral("View"));
    addAction(
        view, "view.zoomIn", QStringLiteral("Zoom In"),
        {chord(ctrl, Qt::Key_Plus), chord(ctrlShift, Qt::Key_Plus), chord(ctrl, Qt::Key_Equal)},
        [this] { zoom(1); });
    addAction(view, "view.zoomOut", QStringLiteral("Zoom Out"), {chord(ctrl, Qt::Key_Minus)},
              [this] { zoom(-1); });
    addAction(view, "view.resetZoom", QStringLiteral("Normal Size"), {chord(ctrl, Qt::Key_0)},
              [this] { zoom(0); });

    if (const auto size = savedFontSize()) XtermWebView::setFontSizeForAll(*size);
    attachFindField();
    connect(workspace_, &WorkspaceStore::selectedTabIDChanged, this,
            &TerminalCommands::watchSelection);
    connect(workspace_, &WorkspaceStore::tabsChanged, this, &TerminalCommands::watchSelection);
    connect(workspace_, &WorkspaceStore::activeWorkspaceIDChanged, this,
            &TerminalCommands::watchSelection);
    watchSelection();
}

QAction* TerminalCommands::addAction(QMenu* menu, const QString& objectName, const QString& title,
                                     const QList<QKeySequence>& keys, std::function<void()> run) {
    QAction* action = menu->addAction(title);
    action->setObjectName(objectName);
    action->setShortcuts(keys);
    action->setShortcutContext(Qt::WindowShortcut);
    window_->addAction(action);
    connect(action, &QAction::triggered, this, std::move(run));
    actions_.append(action);
    return action;
}

QAction* TerminalCommands::action(const QString& objectName) const {
    for (QAction* each : actions_) {
        if (each->objectName() == objectName) return each;
    }
    return nullptr;
}

TerminalController* TerminalCommands::selectedController() const {
    TerminalTab* tab = workspace_->selectedTab();
    if (!tab || !tab->selectedPaneID()) return nullptr;
    TerminalPane* pane = tab->pane(*tab->selectedPaneID());
    return pane ? &pane->controller() : nullptr;
}

XtermCoordinator* TerminalCommands::activeTerminal() const {
    TerminalController* selected = selectedController();
    return selected ? qobject_cast<XtermCoordinator*>(selected->surface()) : nullptr;
}

QLineEdit* TerminalCommands::findField() const {
    return findField_.data();
}

// In a text field the commands act on the field, as its own keys would.
void TerminalCommands::copy() {
    if (auto* field = qobject_cast<QLineEdit*>(QApplication::focusWidget())) {
        field->copy();
    } else if (auto* terminal = activeTerminal()) {
        XtermWebView::copySelection(*terminal);
    }
}

void TerminalCommands::paste() {
    if (auto* field = qobject_cast<QLineEdit*>(QApplication::focusWidget())) {
        field->paste();
    } else if (auto* terminal = activeTerminal()) {
        XtermWebView::pasteClipboard(*terminal);
    }
}

void TerminalCommands::selectAll() {
    if (auto* field = qobject_cast<QLineEdit*>(QApplication::focusWidget())) {
        field->selectAll();
    } else if (auto* terminal = activeTerminal()) {
        terminal->selectAll();
    }
}

void TerminalCommands::find() {
    if (!findField_) attachFindField();
    if (!findField_) return;
    findField_->setFocus(Qt::ShortcutFocusReason);
    findField_->selectAll();
}

std::optional<int> TerminalCommands::savedFontSize() const {
    if (!defaults_) return std::nullopt;
    const auto text = defaults_->text(fontSizeKey);
    if (!text) return std::nullopt;
    bool ok = false;
    const int size = QString::fromStdString(*text).toInt(&ok);
    if (!ok || size < minimumFontSize || size > maximumFontSize) return std::nullopt;
    return size;
}

void TerminalCommands::zoom(int step) {
    const int current = XtermWebView::fontSize();
    const int next = step == 0 ? XtermWebView::defaultFontSize
                               : std::clamp(current + step, minimumFontSize, maximumFontSize);
    if (next == current) return;
    XtermWebView::setFontSizeForAll(next);
    if (defaults_) defaults_->set(fontSizeKey, std::to_string(next));
}

void TerminalCommands::attachFindField() {
    if (findField_) return;
    findField_ = window_->findChild<QLineEdit*>(QStringLiteral("control.find"));
    if (!findField_) return;
    findField_->installEventFilter(this);
    filteredField_ = findField_.data();
    findField_->setMaximumWidth(220);
    matches_ = new QLabel(findField_);
    matches_->setObjectName("control.findMatches");
    matches_->setForegroundRole(QPalette::PlaceholderText);
    matches_->setAttribute(Qt::WA_TransparentForMouseEvents);
    matches_->hide();
    connect(findField_, &QLineEdit::textEdited, this, [this] {
        matches_->clear();
        matches_->hide();
        findField_->setTextMargins(0, 0, 0, 0);
    });
}

bool TerminalCommands::eventFilter(QObject* watched, QEvent* event) {
    if (watched != filteredField_) return false;
    if (event->type() == QEvent::Resize && matches_->isVisible()) showMatches();
    if (event->type() != QEvent::KeyPress) return false;
    auto* key = static_cast<QKeyEvent*>(event);
    if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
        workspace_->search(key->modifiers().testFlag(Qt::ShiftModifier));
        return true;
    }
    if (key->key() == Qt::Key_Escape) {
        if (TerminalController* controller = selectedController()) {
            if (auto* surface = controller->surface()) surface->clearSearch();
        }
        matches_->hide();
        findField_->setTextMargins(0, 0, 0, 0);
        if (auto* terminal = activeTerminal()) terminal->takeKeyboard();
        return true;
    }
    return false;
}

// Follows the selected tab, its selected pane and that pane's controller.
void TerminalCommands::watchSelection() {
    attachFindField();
    for (const auto& connection : watches_)
        disconnect(connection);
    watches_.clear();
    watchedTab_ = workspace_->selectedTab();
    if (watchedTab_) {
        watches_.append(connect(watchedTab_, &TerminalTab::selectedPaneIDChanged, this,
                                &TerminalCommands::watchSelection));
    }
    watchedController_ = selectedController();
    if (watchedController_) {
        watches_.append(connect(watchedController_, &TerminalController::titleChanged, this,
                                &TerminalCommands::refreshWindowTitle));
        watches_.append(connect(watchedController_, &TerminalController::searchMatchesChanged, this,
                                &TerminalCommands::showMatches));
    }
    refreshWindowTitle();
}

void TerminalCommands::showMatches() {
    if (!matches_ || !findField_) return;
    if (!watchedController_ || findField_->text().isEmpty()) {
        matches_->hide();
        return;
    }
    const int count = watchedController_->searchMatchCount();
    const int index = watchedController_->searchMatchIndex();
    QString text = QStringLiteral("No matches");
    if (count > 0 && index >= 0) {
        text = QStringLiteral("%1 of %2").arg(index + 1).arg(count);
    } else if (count > 0) {
        text = count == 1 ? QStringLiteral("1 match") : QStringLiteral("%1 matches").arg(count);
    }
    matches_->setText(text);
    matches_->adjustSize();
    const int width = matches_->sizeHint().width();
    findField_->setTextMargins(0, 0, width + 4, 0);
    matches_->setGeometry(findField_->width() - width - 2, 0, width, findField_->height());
    matches_->show();
}

void TerminalCommands::refreshWindowTitle() {
    QStringList parts;
    if (watchedController_ && !watchedController_->title().isEmpty())
        parts << watchedController_->title();
    if (workspace_->selectedTab()) parts << workspace_->activeWorkspaceTitle();
    parts << QStringLiteral("Harborlattice");
    window_->setWindowTitle(parts.join(QStringLiteral(" — ")));
}

}  // namespace hl
