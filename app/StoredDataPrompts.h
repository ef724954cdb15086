// StoredDataPrompts: the two windows about the preferences themselves — the one
// shown at start when the database is busy or cannot be opened (Retry or Quit),
// and the confirmation of "Keep a Copy and Start Over…" for damaged data.
#pragma once

#include <QString>

#include <filesystem>

#include "HarborlatticeApp.h"

class QWidget;

namespace hl {

// The start window's text for a database that could not be opened or read.
QString preferencesUnavailableText(const PreferencesError& error,
                                   const std::filesystem::path& file);

// Shows the start window; true when the user chose Retry.
bool askToRetryOpeningPreferences(const PreferencesError& error, const std::filesystem::path& file);

// Asks for confirmation, keeps the copies, says where they are, and starts the
// application again so that every store starts from the cleared keys.
void offerKeepCopyAndStartOver(HarborlatticeApp& app, QWidget* parent);

}  // namespace hl
