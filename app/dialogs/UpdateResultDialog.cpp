// The result of an update check, shown once.
#include "UpdateResultDialog.h"

#include <QApplication>
#include <QPushButton>

#include "FileManagerReveal.h"

namespace hl {

QMessageBox* UpdateResultDialog::present(const UpdateCheckResult& result, QWidget* parent) {
    if (!parent) parent = QApplication::activeWindow();
    const UpdateResultText text = updateResultText(result);
    auto* box = new QMessageBox(parent);
    box->setObjectName("updates.result");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowTitle(QStringLiteral("Software Update"));
    box->setText(text.title);
    box->setInformativeText(text.message);
    box->setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 380px; }"));
    const bool offered = result.outcome == UpdateCheckResult::Outcome::updateAvailable;
    box->setIcon(result.outcome == UpdateCheckResult::Outcome::failed ? QMessageBox::Warning
                                                                      : QMessageBox::Information);
    if (offered) {
        QPushButton* reveal = box->addButton(showInFileManagerTitle(), QMessageBox::ActionRole);
        reveal->setObjectName("updates.reveal");
        QObject::connect(reveal, &QPushButton::clicked, box,
                         [path = result.archivePath] { revealInFileManager(path); });
    }
    QPushButton* ok = box->addButton(QMessageBox::Ok);
    ok->setObjectName("updates.ok");
    box->setEscapeButton(ok);  // closing the window is "OK"
    box->setDefaultButton(ok);
    box->setWindowModality(Qt::NonModal);
    box->open();
    return box;
}

}  // namespace hl
