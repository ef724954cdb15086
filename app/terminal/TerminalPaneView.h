// TerminalPaneView: one pane on screen — the place of its terminal above a
// status line with a connection dot, the controller's status and the pane's
// working directory. The terminal itself is drawn by the tab's document view,
// which lies under the pane views: the pane leaves its terminal's place open
// and tells the document where that place is. A click or a key press inside
// the pane reports it to the store; focus that the toolkit moves by itself (a
// view hidden or re-parented) does not.
#pragma once

#include <QPointer>
#include <QWidget>

#include <functional>

#include "TerminalPane.h"

class QLabel;

namespace hl {

class ElidedLabel;
class StatusDot;
class XtermWebView;

class TerminalPaneView : public QWidget {
    Q_OBJECT

  public:
    TerminalPaneView(TerminalPane* pane, XtermWebView* document, std::function<void()> onSelect,
                     QWidget* parent = nullptr);
    ~TerminalPaneView() override;

    TerminalPane* pane() const { return pane_; }
    bool isSelected() const { return selected_; }
    void setSelected(bool selected);

    // True when `directory` is `folder` or lies below it.
    static bool isInsideFolder(const QString& directory, const QString& folder);
    // After the shell's directory in the footer, when it has left the pane's folder.
    static inline const QString shellOutsideFolderNote =
        QStringLiteral(" · outside the pane's folder · starts fresh after a restart");

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void refreshStatus();
    void refreshDirectory();
    void flashForBell();
    // Leaves the terminal's place open and tells the document where it is.
    void placeTerminal();

    QPointer<TerminalPane> pane_;
    QPointer<TerminalController> controller_;
    QPointer<XtermWebView> document_;
    std::function<void()> onSelect_;
    bool selected_ = false;
    QWidget* terminal_ = nullptr;
    QWidget* statusLine_ = nullptr;
    StatusDot* dot_ = nullptr;
    QLabel* status_ = nullptr;
    ElidedLabel* cwd_ = nullptr;
};

}  // namespace hl
