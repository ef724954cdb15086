// WindowGeometry: the window's size and place, remembered in the preferences
// and always inside the screen's available area, whatever its scale.
#pragma once

#include <QObject>
#include <QRect>
#include <QSize>
#include <QTimer>

#include <memory>

#include "Preferences.h"

class QWidget;

namespace hl {

// `wanted` made to fit `available`, keeping as much as fits.
QRect fittedToScreen(const QRect& wanted, const QRect& available);

class WindowGeometry : public QObject {
  public:
    static constexpr const char* storageKey = "harborlattice.window.geometry.v1";

    // Sizes `window` from the saved geometry (or `preferred`), fitted to its
    // screen, and saves every later move or resize a moment after it settles.
    WindowGeometry(QWidget* window, std::shared_ptr<Preferences> defaults, QSize preferred,
                   QSize minimum);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void fit();
    void save();

    QWidget* window_;
    std::shared_ptr<Preferences> defaults_;
    QSize minimum_;
    QTimer saveTimer_;
};

}  // namespace hl
