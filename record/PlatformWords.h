// Texts that name the platform: "iCloud" reads "Cloud" on Linux. Each such text
// is written once with both spellings, so that both can be tested.
#pragma once

#include <QString>

namespace hl {

enum class TextPlatform { MacOS, Linux };

// The platform this build runs on.
TextPlatform runningTextPlatform();

// The text as written for macOS, or its Linux spelling.
inline QString platformText(TextPlatform platform, const char* macText, const char* linuxText) {
    return QString::fromUtf8(platform == TextPlatform::MacOS ? macText : linuxText);
}

}  // namespace hl
