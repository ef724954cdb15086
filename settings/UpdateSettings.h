// UpdateSettings: whether the application checks for updates by itself, and
// the feed the user chose in place of the build's.
#pragma once

#include <QString>

#include "AppcastUpdater.h"
#include "Preferences.h"

namespace hl {

struct UpdateSettings {
    static constexpr const char* name = "updates";

    bool automaticallyChecks = true;
    QString feedURL;  // empty: the build's feed

    bool operator==(const UpdateSettings&) const = default;

    static UpdateSettings read(const Preferences& defaults);
    bool write(Preferences& defaults) const;
    // `build` (UpdateChannel::standard()) with these settings: a feed of the
    // user's replaces the build's, but a build that dpkg installed stays with
    // its package manager.
    UpdateChannel channel(UpdateChannel build) const;
};

}  // namespace hl
