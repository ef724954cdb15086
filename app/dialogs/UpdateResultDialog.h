// UpdateResultDialog: the plain dialog that ends a check — up to date, an
// update offered (with its verified archive to show in the file manager), or
// the reason the check failed.
#pragma once

#include <QMessageBox>

#include "AppcastUpdater.h"

namespace hl {

struct UpdateResultDialog {
    UpdateResultDialog() = delete;

    // Opens the dialog without blocking, over the active window; it deletes itself when closed.
    static QMessageBox* present(const UpdateCheckResult& result, QWidget* parent = nullptr);
};

}  // namespace hl
