// What the process must settle before its QApplication exists: the renderer's
// sandbox, which Chromium refuses to run as root, and the shared graphics
// context that the web renderer needs.
#pragma once

namespace hl {

// Turns the renderer's sandbox off for this process only, and only when it
// runs as root; a normal user keeps it.
void prepareProcessEnvironment();

}  // namespace hl
