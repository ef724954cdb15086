// The terminal settings in the preferences.
#include "TerminalSettings.h"

#include <QJsonObject>
#include <QTimer>

#include <algorithm>
#include <array>
#include <utility>

#include "SettingsValue.h"

namespace hl {

namespace {

template <typename Enum, std::size_t N>
Enum named(const QString& text, const std::array<std::pair<Enum, const char*>, N>& names,
           Enum fallback) {
    for (const auto& [value, name] : names) {
        if (text == QLatin1String(name)) return value;
    }
    return fallback;
}

template <typename Enum, std::size_t N>
QString nameOf(Enum value, const std::array<std::pair<Enum, const char*>, N>& names) {
    for (const auto& [each, name] : names) {
        if (each == value) return QString::fromLatin1(name);
    }
    return {};
}

using Scheme = TerminalSettings::ColorScheme;
using Shape = TerminalSettings::CursorShape;
using Bell = TerminalSettings::Bell;
constexpr std::array<std::pair<Scheme, const char*>, 3> schemeNames{
    {{Scheme::FollowDesktop, "desktop"}, {Scheme::Light, "light"}, {Scheme::Dark, "dark"}}};
constexpr std::array<std::pair<Shape, const char*>, 3> shapeNames{
    {{Shape::Block, "block"}, {Shape::Underline, "underline"}, {Shape::Bar, "bar"}}};
constexpr std::array<std::pair<Bell, const char*>, 3> bellNames{
    {{Bell::Visible, "visible"}, {Bell::Sound, "sound"}, {Bell::None, "none"}}};

}  // namespace

TerminalSettings TerminalSettings::read(const Preferences& defaults) {
    const QJsonObject object = readSettingsObject(defaults, name);
    TerminalSettings settings;
    settings.fontFamily = object.value("fontFamily").toString();
    settings.fontSize = std::clamp(object.value("fontSize").toInt(settings.fontSize),
                                   smallestFontSize, largestFontSize);
    settings.colorScheme =
        named(object.value("colorScheme").toString(), schemeNames, settings.colorScheme);
    settings.scrollbackLines = std::clamp(
        object.value("scrollback").toInt(settings.scrollbackLines), 0, largestScrollback);
    settings.cursorShape =
        named(object.value("cursorShape").toString(), shapeNames, settings.cursorShape);
    settings.cursorBlinks = object.value("cursorBlinks").toBool(settings.cursorBlinks);
    settings.bell = named(object.value("bell").toString(), bellNames, settings.bell);
    settings.copyOnSelect = object.value("copyOnSelect").toBool(settings.copyOnSelect);
    return settings;
}

bool TerminalSettings::write(Preferences& defaults) const {
    QJsonObject object;
    object["fontFamily"] = fontFamily;
    object["fontSize"] = fontSize;
    object["colorScheme"] = nameOf(colorScheme, schemeNames);
    object["scrollback"] = scrollbackLines;
    object["cursorShape"] = nameOf(cursorShape, shapeNames);
    object["cursorBlinks"] = cursorBlinks;
    object["bell"] = nameOf(bell, bellNames);
    object["copyOnSelect"] = copyOnSelect;
    return writeSettingsObject(defaults, name, object);
}

TerminalSettingsStore::TerminalSettingsStore(std::shared_ptr<Preferences> defaults, QObject* parent)
    : QObject(parent),
      defaults_(std::move(defaults)),
      settings_(TerminalSettings::read(*defaults_)) {
    qRegisterMetaType<hl::TerminalSettings>();
}

void TerminalSettingsStore::setSettings(const TerminalSettings& settings) {
    if (settings == settings_) return;
    settings_ = settings;
    settings_.write(*defaults_);
    // Told on the next turn, never in the middle of the caller's own work.
    QTimer::singleShot(0, this, [this, settings = settings_] { emit changed(settings); });
}

}  // namespace hl
