// TerminalPaneView: one pane on screen — its terminal renderer above a status
// line with a connection dot, the controller's status and the pane's working
// directory. A click or a key press inside the pane reports it to the store;
// focus that the toolkit moves by itself (a view hidden or re-parented) does not.
#pragma once

#include <QPointer>
#include <QWidget>

#include <functional>

#include "TerminalPane.h"

class QLabel;

namespace hl {

class ElidedLabel;
class StatusDot;

class TerminalPaneView : public QWidget {
    Q_OBJECT

  public:
    TerminalPaneView(TerminalPane* pane, std::function<void()> onSelect, QWidget* parent = nullptr);
    ~TerminalPaneView() override;

    TerminalPane* pane() const { return pane_; }
    bool isSelected() const { return selected_; }
    void setSelected(bool selected);

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void refreshStatus();
    void flashForBell();

    QPointer<TerminalPane> pane_;
    QPointer<TerminalController> controller_;
    std::function<void()> onSelect_;
    bool selected_ = false;
    QWidget* terminal_ = nullptr;
    QWidget* statusLine_ = nullptr;
    StatusDot* dot_ = nullptr;
    QLabel* status_ = nullptr;
    ElidedLabel* cwd_ = nullptr;
};

}  // namespace hl
