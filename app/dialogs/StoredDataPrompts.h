// StoredDataPrompts: the windows about the preferences themselves — the one
// shown at start while the database cannot be opened (Retry and Quit; a busy
// database is tried again every second by itself; a file that is no database
// offers "Keep a Copy and Start Over…", which moves it whole aside), and the
// confirmation of "Keep a Copy and Start Over…" for damaged values. Either way
// out keeps every running shell: they open again in a "Recovered terminals"
// tab of the Scratch workspace.
#pragma once

#include <QString>

#include <filesystem>
#include <functional>
#include <memory>

#include "HarborlatticeApp.h"

class QWidget;

namespace hl {

// The start window's text for a database that could not be opened or read.
QString preferencesUnavailableText(const PreferencesError& error,
                                   const std::filesystem::path& file);

// Builds the application with `build` until it succeeds, showing the start
// window between tries. Null when the user chose Quit. `client` asks the node
// which shells run (empty: the default socket).
std::unique_ptr<HarborlatticeApp> openApplication(
    const std::filesystem::path& file,
    const std::function<std::unique_ptr<HarborlatticeApp>()>& build,
    std::shared_ptr<const NodeClientTransport> client = {});

// Asks for confirmation, keeps the copies, says where they are, and starts the
// application again so that every store starts from the cleared keys.
void offerKeepCopyAndStartOver(HarborlatticeApp& app, QWidget* parent);

// The confirmation's sentence about the shells that `count` names.
QString recoveredTerminalsText(std::size_t count);

}  // namespace hl
