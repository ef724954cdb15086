// ProjectCopySheet: a modal column of title, detail, progress and one button,
// re-read from the controller on each of its changes.
#include "ProjectCopySheet.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "ProjectCopyController.h"

namespace hl {

ProjectCopySheet::ProjectCopySheet(ProjectCopyController* controller, QWidget* parent)
    : QDialog(parent), controller_(controller) {
    setModal(true);
    setFixedWidth(520);
    setWindowTitle(QStringLiteral("Copy Project"));
    auto* column = new QVBoxLayout(this);
    column->setSpacing(18);
    column->setContentsMargins(24, 24, 24, 24);

    title_ = new QLabel(this);
    QFont titleFont = title_->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    titleFont.setWeight(QFont::DemiBold);
    title_->setFont(titleFont);
    column->addWidget(title_);

    detail_ = new QLabel(this);
    detail_->setWordWrap(true);
    detail_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    detail_->setTextFormat(Qt::PlainText);
    detail_->setFixedWidth(520 - 48);
    detail_->setForegroundRole(QPalette::PlaceholderText);
    column->addWidget(detail_);

    bar_ = new QProgressBar(this);
    bar_->setTextVisible(false);
    column->addWidget(bar_, 0, Qt::AlignLeft);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    cancel_ = new QPushButton(QStringLiteral("Cancel"), this);
    done_ = new QPushButton(QStringLiteral("Done"), this);
    buttons->addWidget(cancel_);
    buttons->addWidget(done_);
    column->addLayout(buttons);

    connect(cancel_, &QPushButton::clicked, controller_, &ProjectCopyController::cancel);
    connect(done_, &QPushButton::clicked, controller_, &ProjectCopyController::dismiss);
    for (auto signal :
         {&ProjectCopyController::isPresentedChanged, &ProjectCopyController::phaseChanged,
          &ProjectCopyController::progressChanged, &ProjectCopyController::projectNameChanged,
          &ProjectCopyController::detailChanged})
        connect(controller_, signal, this, &ProjectCopySheet::refresh);
    refresh();
}

void ProjectCopySheet::reject() {
    if (!controller_->isRunning()) controller_->dismiss();
}

void ProjectCopySheet::refresh() {
    title_->setText("Copy " + controller_->projectName());
    detail_->setText(controller_->detail());
    const auto phase = controller_->phase();
    if (phase == ProjectCopyController::Phase::Preparing) {
        bar_->setRange(0, 0);
        bar_->setMinimumWidth(120);
        bar_->setMaximumWidth(120);
    } else {
        // Until rsync's first figure (the connection, the first file list, the
        // files a resume finds in place), the bar shows that the copy runs.
        const bool figureYet =
            phase != ProjectCopyController::Phase::Copying || controller_->progress() > 0;
        bar_->setRange(0, figureYet ? 1000 : 0);
        bar_->setMaximumWidth(QWIDGETSIZE_MAX);
        bar_->setMinimumWidth(520 - 48);
        bar_->setValue(qRound(controller_->progress() * 1000));
    }
    const bool running = controller_->isRunning();
    cancel_->setVisible(running);
    done_->setVisible(!running);
    done_->setDefault(!running);
    cancel_->setDefault(false);
    adjustSize();
    if (controller_->isPresented() && !isVisible())
        open();
    else if (!controller_->isPresented() && isVisible())
        hide();
}

}  // namespace hl
