// What the process must settle before its QApplication exists: the renderer's
// sandbox, which Chromium refuses to run as root, and the shared graphics
// context that the web renderer needs.
#pragma once

namespace hl {

// Turns the renderer's sandbox off for this process only, and only when it
// runs as root; a normal user keeps it.
void prepareProcessEnvironment();

// After the QApplication exists and before any web view: draws web views with
// the scene graph's software backend when OpenGL is missing or only a software
// rasterizer. A QT_QUICK_BACKEND set by the user stands.
void chooseRenderingBackend();

// True when no OpenGL context can be made current, or its renderer is a
// software rasterizer.
bool openGLIsSoftwareOrMissing();

}  // namespace hl
