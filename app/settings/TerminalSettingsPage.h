// The Terminals page: font, size, colours, scrollback, cursor, bell and copy
// on select. Every change goes to the store at once.
#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QFontComboBox;
class QSpinBox;

namespace hl {

class TerminalSettingsStore;

class TerminalSettingsPage : public QWidget {
    Q_OBJECT

  public:
    TerminalSettingsPage(TerminalSettingsStore& store, QWidget* parent);

  private:
    void apply();

    TerminalSettingsStore& store_;
    QFontComboBox* font_;
    QSpinBox* size_;
    QComboBox* scheme_;
    QSpinBox* scrollback_;
    QComboBox* cursor_;
    QCheckBox* blink_;
    QComboBox* bell_;
    QCheckBox* copyOnSelect_;
};

}  // namespace hl
