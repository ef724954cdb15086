// The Terminals page's controls.
#include "TerminalSettingsPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFontComboBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QSpinBox>

#include "TerminalSettings.h"

namespace hl {

namespace {

QComboBox* choices(const QStringList& names, int current, const char* objectName, QWidget* parent) {
    auto* box = new QComboBox(parent);
    box->setObjectName(objectName);
    box->addItems(names);
    box->setCurrentIndex(current);
    return box;
}

}  // namespace

TerminalSettingsPage::TerminalSettingsPage(TerminalSettingsStore& store, QWidget* parent)
    : QWidget(parent), store_(store) {
    setObjectName("settings.terminals");
    const TerminalSettings& settings = store.settings();
    font_ = new QFontComboBox(this);
    font_->setObjectName("settings.terminals.font");
    font_->setFontFilters(QFontComboBox::MonospacedFonts);
    font_->setCurrentFont(settings.fontFamily.isEmpty()
                              ? QFontDatabase::systemFont(QFontDatabase::FixedFont)
                              : QFont(settings.fontFamily));
    size_ = new QSpinBox(this);
    size_->setObjectName("settings.terminals.size");
    size_->setRange(TerminalSettings::smallestFontSize, TerminalSettings::largestFontSize);
    size_->setSuffix(QStringLiteral(" pt"));
    size_->setValue(settings.fontSize);
    // The order of each list is the order of its enumeration.
    scheme_ = choices(
        {QStringLiteral("Follow the desktop"), QStringLiteral("Light"), QStringLiteral("Dark")},
        static_cast<int>(settings.colorScheme), "settings.terminals.scheme", this);
    scrollback_ = new QSpinBox(this);
    scrollback_->setObjectName("settings.terminals.scrollback");
    scrollback_->setRange(0, TerminalSettings::largestScrollback);
    scrollback_->setSingleStep(1000);
    scrollback_->setSuffix(QStringLiteral(" lines"));
    scrollback_->setValue(settings.scrollbackLines);
    cursor_ = choices({QStringLiteral("Block"), QStringLiteral("Underline"), QStringLiteral("Bar")},
                      static_cast<int>(settings.cursorShape), "settings.terminals.cursor", this);
    blink_ = new QCheckBox(QStringLiteral("Blinking cursor"), this);
    blink_->setObjectName("settings.terminals.blink");
    blink_->setChecked(settings.cursorBlinks);
    bell_ = choices({QStringLiteral("Flash the terminal"), QStringLiteral("Play a sound"),
                     QStringLiteral("None")},
                    static_cast<int>(settings.bell), "settings.terminals.bell", this);
    copyOnSelect_ = new QCheckBox(QStringLiteral("Copy text when it is selected"), this);
    copyOnSelect_->setObjectName("settings.terminals.copyOnSelect");
    copyOnSelect_->setChecked(settings.copyOnSelect);

    auto* form = new QFormLayout(this);
    form->addRow(QStringLiteral("Font:"), font_);
    form->addRow(QStringLiteral("Size:"), size_);
    form->addRow(QStringLiteral("Colours:"), scheme_);
    form->addRow(QStringLiteral("Scrollback:"), scrollback_);
    form->addRow(QStringLiteral("Cursor:"), cursor_);
    form->addRow(QString(), blink_);
    form->addRow(QStringLiteral("Bell:"), bell_);
    form->addRow(QString(), copyOnSelect_);

    connect(font_, &QFontComboBox::currentFontChanged, this, &TerminalSettingsPage::apply);
    connect(size_, &QSpinBox::valueChanged, this, &TerminalSettingsPage::apply);
    connect(scheme_, &QComboBox::currentIndexChanged, this, &TerminalSettingsPage::apply);
    connect(scrollback_, &QSpinBox::valueChanged, this, &TerminalSettingsPage::apply);
    connect(cursor_, &QComboBox::currentIndexChanged, this, &TerminalSettingsPage::apply);
    connect(blink_, &QCheckBox::toggled, this, &TerminalSettingsPage::apply);
    connect(bell_, &QComboBox::currentIndexChanged, this, &TerminalSettingsPage::apply);
    connect(copyOnSelect_, &QCheckBox::toggled, this, &TerminalSettingsPage::apply);
}

void TerminalSettingsPage::apply() {
    TerminalSettings settings;
    settings.fontFamily = font_->currentFont().family();
    settings.fontSize = size_->value();
    settings.colorScheme = static_cast<TerminalSettings::ColorScheme>(scheme_->currentIndex());
    settings.scrollbackLines = scrollback_->value();
    settings.cursorShape = static_cast<TerminalSettings::CursorShape>(cursor_->currentIndex());
    settings.cursorBlinks = blink_->isChecked();
    settings.bell = static_cast<TerminalSettings::Bell>(bell_->currentIndex());
    settings.copyOnSelect = copyOnSelect_->isChecked();
    store_.setSettings(settings);
}

}  // namespace hl
