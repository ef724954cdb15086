// AboutDialog: the version and the licences.
#include "AboutDialog.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>
#include <QVBoxLayout>

#ifndef HARBORLATTICE_VERSION
#define HARBORLATTICE_VERSION "0"
#endif

namespace hl {

namespace {

// The terminal document's scripts come from xterm.js and its addons, under the MIT licence.
const char* const xtermLicence =
    "xterm.js 6.0.0 and its addons (fit, search, web links, Unicode 11)\n"
    "\n"
    "Copyright (c) 2017-2019, The xterm.js authors\n"
    "Copyright (c) 2014-2016, SourceLair Private Company\n"
    "Copyright (c) 2012-2013, Christopher Jeffrey\n"
    "\n"
    "Permission is hereby granted, free of charge, to any person obtaining a copy of this "
    "software and associated documentation files (the \"Software\"), to deal in the Software "
    "without restriction, including without limitation the rights to use, copy, modify, merge, "
    "publish, distribute, sublicense, and/or sell copies of the Software, and to permit persons "
    "to whom the Software is furnished to do so, subject to the following conditions:\n"
    "\n"
    "The above copyright notice and this permission notice shall be included in all copies or "
    "substantial portions of the Software.\n"
    "\n"
    "THE SOFTWARE IS PROVIDED \"AS IS\", WITHOUT WARRANTY OF ANY KIND, EXPRESS OR IMPLIED, "
    "INCLUDING BUT NOT LIMITED TO THE WARRANTIES OF MERCHANTABILITY, FITNESS FOR A PARTICULAR "
    "PURPOSE AND NONINFRINGEMENT. IN NO EVENT SHALL THE AUTHORS OR COPYRIGHT HOLDERS BE LIABLE "
    "FOR ANY CLAIM, DAMAGES OR OTHER LIABILITY, WHETHER IN AN ACTION OF CONTRACT, TORT OR "
    "OTHERWISE, ARISING FROM, OUT OF OR IN CONNECTION WITH THE SOFTWARE OR THE USE OR OTHER "
    "DEALINGS IN THE SOFTWARE.\n";

}  // namespace

QString AboutDialog::title() {
    return QStringLiteral("Harborlattice " HARBORLATTICE_VERSION);
}

AboutDialog::AboutDialog(QWidget* parent) : QDialog(parent) {
    setObjectName("about");
    setWindowTitle(QStringLiteral("About Harborlattice"));
    auto* layout = new QVBoxLayout(this);
    auto* name = new QLabel(title(), this);
    name->setObjectName("about.title");
    QFont bold = name->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.3);
    name->setFont(bold);
    layout->addWidget(name);
    auto* summary =
        new QLabel(QStringLiteral("Terminals in tabs and split panes, kept per project.\n"
                                  "Copyright 2026 Quarry Notch. All rights reserved."),
                   this);
    layout->addWidget(summary);

    auto* licences = new QTextBrowser(this);
    licences->setObjectName("about.licences");
    licences->setPlainText(
        QString::fromUtf8(xtermLicence) +
        QStringLiteral("\nQt %1\n\nThe Qt libraries are used under the GNU Lesser General "
                       "Public License, version 3 (LGPL-3.0-only). \"About Qt\" shows Qt's own "
                       "notice.\n")
            .arg(QString::fromLatin1(qVersion())));
    licences->setMinimumSize(520, 260);
    layout->addWidget(licences);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    QPushButton* aboutQt =
        buttons->addButton(QStringLiteral("About Qt"), QDialogButtonBox::HelpRole);
    connect(aboutQt, &QPushButton::clicked, qApp, &QApplication::aboutQt);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

}  // namespace hl
