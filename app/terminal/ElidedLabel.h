// ElidedLabel: a text on one line whose middle gives way when space is short;
// the whole text stays in the tool tip.
#pragma once

#include <QLabel>

namespace hl {

class ElidedLabel : public QLabel {
  public:
    using QLabel::QLabel;
    void setFullText(const QString& text) {
        full_ = text;
        setToolTip(text);
        elide();
    }
    const QString& fullText() const { return full_; }
    QSize minimumSizeHint() const override { return {0, QLabel::minimumSizeHint().height()}; }
    QSize sizeHint() const override {
        return {fontMetrics().horizontalAdvance(full_), QLabel::sizeHint().height()};
    }

  protected:
    void resizeEvent(QResizeEvent* event) override {
        QLabel::resizeEvent(event);
        elide();
    }

  private:
    void elide() { setText(fontMetrics().elidedText(full_, Qt::ElideMiddle, width())); }
    QString full_;
};

}  // namespace hl
