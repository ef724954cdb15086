// Showing a file in the desktop's file manager: the file manager's own D-Bus
// service (org.freedesktop.FileManager1) selects it in its folder; without
// that service the folder is opened instead.
#pragma once

#include <QString>

#include <filesystem>

#include "CommandKeys.h"

namespace hl {

// "Show in File Manager" ("Show in Finder" on macOS).
QString showInFileManagerTitle(KeyPlatform platform = runningKeyPlatform());

// Asks without waiting; a refusal or a missing service falls back to opening the folder.
void revealInFileManager(const std::filesystem::path& file);

}  // namespace hl
