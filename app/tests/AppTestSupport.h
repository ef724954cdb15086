// Helpers of the application tests: a throwaway home for the whole test
// process (preferences, support folder, node socket), event-loop waits,
// widget lookup by object name, screenshots, and the node's processes.
#pragma once

#include <QString>
#include <QWidget>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace hl {
class TerminalController;
}

namespace hl::apptest {

// The process's private folder; every path below lies inside it.
const std::filesystem::path& baseFolder();
// Points HOME, XDG_CONFIG_HOME, XDG_DATA_HOME, the node socket and the node
// executable into baseFolder(), HARBORLATTICE_ROOT at the source checkout,
// and selects the offscreen platform. Called by
// main before the QApplication exists.
void prepareTestEnvironment();
// Stops every process started with a socket inside baseFolder() (nodes and
// their shells), then removes the folder.
void cleanUpTestEnvironment();

// Spins the event loop until `condition` holds or `timeout` passes.
bool spinUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(15));
void spinFor(std::chrono::milliseconds span);

// The node socket this process's applications use.
std::string socketPath();
// Everything the controller has given its renderer, decoded.
QByteArray rendererBytes(const TerminalController& controller);
// True when a node answers "health" on that socket.
bool nodeAnswers(const std::string& socketPath);
// The session ids the node on that socket holds.
std::vector<std::string> nodeSessions(const std::string& socketPath);

// Saves the widget's picture as <screenshot folder>/<name>.png; returns the path.
QString saveScreenshot(QWidget* widget, const QString& name);

// The visible widget of that type and object name under `root`, or null.
template <typename T = QWidget>
T* find(QObject* root, const QString& objectName) {
    for (T* each : root->findChildren<T*>(objectName)) {
        auto* widget = qobject_cast<QWidget*>(each);
        if (!widget || widget->isVisibleTo(widget->window())) return each;
    }
    return nullptr;
}

}  // namespace hl::apptest
