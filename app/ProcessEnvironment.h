// What the process must settle before its QApplication exists: the renderer's
// sandbox, which Chromium refuses to run as root, the shared graphics context
// that the web renderer needs, the terminal pages' own scheme, and the web
// engine's options that put every terminal page in one renderer process.
#pragma once

#include <vector>

namespace hl {

// Turns the renderer's sandbox off for this process only, and only when it
// runs as root (a normal user keeps it), and registers the terminal pages'
// scheme.
void prepareProcessEnvironment();

// The web engine's options for this application: every page of one site (all
// terminal pages share the terminal scheme's one origin) in one renderer
// process.
const std::vector<const char*>& webEngineOptions();

// `argv` with the web engine's options after "--webEngineArgs" (after the
// caller's own options for the web engine, when it gave any), ending in a
// null pointer as argv does. The texts live as long as `argv`. When
// QTWEBENGINE_CHROMIUM_FLAGS is set the web engine reads its options from
// there alone, so they are added to it instead and `argv` is left as it is.
std::vector<char*> withWebEngineOptions(int argc, char** argv);

// After the QApplication exists and before any web view: draws web views with
// the scene graph's software backend when OpenGL is missing or only a software
// rasterizer. A QT_QUICK_BACKEND set by the user stands.
void chooseRenderingBackend();

// True when no OpenGL context can be made current, or its renderer is a
// software rasterizer.
bool openGLIsSoftwareOrMissing();

}  // namespace hl
