// IdeaComposerView: the sheet that queues an improvement idea in the local
// inbox. While editing it shows the field, its byte counter, what is and is
// not captured, and what queueing allows; after a save it confirms with the
// report's reference until it is dismissed. Control+Return queues; Tab is
// text, Control+Tab moves on. A refusal says what was wrong and in which folder.
#pragma once

#include <QDialog>
#include <QString>
#include <QWidget>

#include <functional>
#include <optional>

#include "IdeaInboxStore.h"

class QLabel;
class QPlainTextEdit;
class QPushButton;
class QStackedWidget;

namespace hl {

class IdeaComposerView : public QWidget {
    Q_OBJECT

  public:
    static QString failureText();

    explicit IdeaComposerView(std::function<void()> dismiss, QWidget* parent = nullptr);

    QString idea() const;
    const std::optional<SavedIdea>& saved() const { return saved_; }
    const std::optional<QString>& failure() const { return failure_; }
    bool ideaFocused() const;
    // Queues the text; on failure the text stays and one failure line shows.
    void save();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    QWidget* buildEditor();
    QWidget* buildConfirmation();
    void refresh();

    std::function<void()> dismiss_;
    std::optional<SavedIdea> saved_;
    std::optional<QString> failure_;

    QStackedWidget* pages_ = nullptr;
    QPlainTextEdit* field_ = nullptr;
    QLabel* counter_ = nullptr;
    QWidget* failureRow_ = nullptr;
    QLabel* failureLabel_ = nullptr;
    QPushButton* queue_ = nullptr;
    QLabel* reference_ = nullptr;
};

// Shows the composer as a sheet over `parent`; `dismiss` runs when it goes,
// by its own buttons or by closing the window.
QDialog* presentIdeaComposerSheet(QWidget* parent, std::function<void()> dismiss);

}  // namespace hl
