// What the Settings tests' entry point set up.
#pragma once

namespace hl::settingstest {

// Whether gnome-keyring-daemon serves the Secret Service on the test's bus.
bool secretServiceRuns();

}  // namespace hl::settingstest
