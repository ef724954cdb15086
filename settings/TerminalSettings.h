// TerminalSettings: how terminals look and behave, as the user chose it, and
// the store that keeps it in the preferences and says when it changes.
#pragma once

#include <QObject>
#include <QString>

#include <memory>

#include "Preferences.h"

namespace hl {

struct TerminalSettings {
    static constexpr const char* name = "terminals";
    static constexpr int smallestFontSize = 6;
    static constexpr int largestFontSize = 72;
    static constexpr int largestScrollback = 1'000'000;

    enum class ColorScheme { FollowDesktop, Light, Dark };
    enum class CursorShape { Block, Underline, Bar };
    enum class Bell { Visible, Sound, None };

    QString fontFamily;  // empty: the system's fixed-pitch font
    int fontSize = 13;   // points
    ColorScheme colorScheme = ColorScheme::FollowDesktop;
    int scrollbackLines = 10'000;
    CursorShape cursorShape = CursorShape::Block;
    bool cursorBlinks = true;
    Bell bell = Bell::Visible;
    bool copyOnSelect = false;

    bool operator==(const TerminalSettings&) const = default;

    // Values out of range are brought into it; unknown names give the default.
    static TerminalSettings read(const Preferences& defaults);
    bool write(Preferences& defaults) const;
};

class TerminalSettingsStore : public QObject {
    Q_OBJECT

  public:
    explicit TerminalSettingsStore(std::shared_ptr<Preferences> defaults,
                                   QObject* parent = nullptr);

    const TerminalSettings& settings() const { return settings_; }
    // Keeps `settings` and, when it differs, emits `changed` after the call.
    void setSettings(const TerminalSettings& settings);

  signals:
    void changed(const hl::TerminalSettings& settings);

  private:
    std::shared_ptr<Preferences> defaults_;
    TerminalSettings settings_;
};

}  // namespace hl
