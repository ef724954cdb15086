// The Sync page's controls; the controller decides and keeps.
#include "SyncSettingsPage.h"

#include <QButtonGroup>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <algorithm>

#include "SyncSettingsController.h"

namespace hl {

namespace {

QLabel* wrappedLabel(const QString& text, const char* name, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setObjectName(name);
    label->setWordWrap(true);
    return label;
}

}  // namespace

SyncSettingsPage::SyncSettingsPage(SyncSettingsController& controller, QWidget* parent)
    : QWidget(parent), controller_(controller) {
    setObjectName("settings.sync");
    auto* column = new QVBoxLayout(this);
    column->addWidget(wrappedLabel(
        QStringLiteral("Keep your projects and terminal tabs in step across your computers "
                       "through a folder they share or a file on a WebDAV server."),
        "settings.sync.about", this));
    if (controller.isOverridden()) {
        column->addWidget(wrappedLabel(
            QStringLiteral("HARBORLATTICE_SYNC_URL is set: it names the sync location for this "
                           "run. Changes here take effect when it is not set."),
            "settings.sync.override", this));
    }
    mode_ = new QButtonGroup(this);
    const QStringList names{QStringLiteral("Off"), QStringLiteral("Shared folder"),
                            QStringLiteral("WebDAV file")};
    const char* objectNames[] = {"settings.sync.off", "settings.sync.folderMode",
                                 "settings.sync.webDavMode"};
    for (int i = 0; i < names.size(); ++i) {
        auto* button = new QRadioButton(names[i], this);
        button->setObjectName(objectNames[i]);
        mode_->addButton(button, i);
    }
    column->addWidget(mode_->button(0));
    column->addWidget(mode_->button(1));

    auto* folderRow = new QHBoxLayout;
    folder_ = new QLabel(this);
    folder_->setObjectName("settings.sync.folder");
    folder_->setWordWrap(true);
    auto* choose = new QPushButton(QStringLiteral("Choose Folder…"), this);
    choose->setObjectName("settings.sync.chooseFolder");
    folderRow->addWidget(folder_, 1);
    folderRow->addWidget(choose);
    folderRow->setContentsMargins(24, 0, 0, 0);
    column->addLayout(folderRow);
    column->addWidget(mode_->button(2));

    auto* form = new QFormLayout;
    form->setContentsMargins(24, 0, 0, 0);
    url_ = new QLineEdit(this);
    url_->setObjectName("settings.sync.url");
    url_->setPlaceholderText(QStringLiteral("https://server/folder/harborlattice.json"));
    user_ = new QLineEdit(this);
    user_->setObjectName("settings.sync.user");
    password_ = new QLineEdit(this);
    password_->setObjectName("settings.sync.password");
    password_->setEchoMode(QLineEdit::Password);
    password_->setPlaceholderText(QStringLiteral("Kept in the desktop's keyring"));
    form->addRow(QStringLiteral("File URL:"), url_);
    form->addRow(QStringLiteral("User name:"), user_);
    form->addRow(QStringLiteral("Password:"), password_);
    column->addLayout(form);

    auto* testRow = new QHBoxLayout;
    test_ = new QPushButton(QStringLiteral("Test"), this);
    test_->setObjectName("settings.sync.test");
    result_ = wrappedLabel(QString(), "settings.sync.testResult", this);
    testRow->addWidget(test_);
    testRow->addWidget(result_, 1);
    column->addLayout(testRow);
    column->addStretch(1);

    showSettings();
    // The file's fields take input only while the WebDAV file is chosen.
    connect(mode_, &QButtonGroup::idToggled, this, [this](int id, bool checked) {
        if (id != 2) return;
        for (QWidget* field : {static_cast<QWidget*>(url_), static_cast<QWidget*>(user_),
                               static_cast<QWidget*>(password_)})
            field->setEnabled(checked);
    });
    for (QWidget* field : {static_cast<QWidget*>(url_), static_cast<QWidget*>(user_),
                           static_cast<QWidget*>(password_)})
        field->setEnabled(mode_->checkedId() == 2);
    connect(mode_, &QButtonGroup::idClicked, this, [this](int id) {
        if (id == 1 && controller_.settings().folder.isEmpty() && folder_->text().isEmpty())
            return chooseFolder();
        applyChoice();
    });
    connect(choose, &QPushButton::clicked, this, &SyncSettingsPage::chooseFolder);
    connect(url_, &QLineEdit::editingFinished, this, [this] {
        // A user name or password typed into the URL goes where it belongs.
        const TypedWebDavUrl typed = splitWebDavUrl(url_->text());
        if (!typed.userName.isEmpty()) user_->setText(typed.userName);
        if (typed.password) password_->setText(*typed.password);
        url_->setText(typed.url.toString());
        if (typed.password) return applyPassword();
        if (mode_->checkedId() == 2) applyChoice();
    });
    connect(user_, &QLineEdit::editingFinished, this, [this] {
        if (mode_->checkedId() == 2) applyChoice();
    });
    connect(password_, &QLineEdit::editingFinished, this, &SyncSettingsPage::applyPassword);
    connect(test_, &QPushButton::clicked, this, &SyncSettingsPage::test);
    connect(&controller_, &SyncSettingsController::passwordFailed, this,
            [this](const QString& failure) {
                result_->setText(QStringLiteral("The password could not be kept: ") + failure);
            });
}

void SyncSettingsPage::showSettings() {
    const SyncSettings& settings = controller_.settings();
    mode_->button(static_cast<int>(settings.mode))->setChecked(true);
    folder_->setText(settings.folder);
    url_->setText(settings.webDavUrl.toString());
    user_->setText(settings.userName);
}

SyncSettings SyncSettingsPage::chosen() const {
    SyncSettings settings;
    settings.mode = static_cast<SyncSettings::Mode>(std::max(0, mode_->checkedId()));
    settings.folder = folder_->text();
    settings.webDavUrl = splitWebDavUrl(url_->text()).url;
    settings.userName = user_->text().trimmed();
    if (settings.mode == SyncSettings::Mode::Folder && settings.folder.isEmpty())
        settings.mode = SyncSettings::Mode::Off;
    return settings;
}

void SyncSettingsPage::chooseFolder() {
    auto* dialog =
        new QFileDialog(this, QStringLiteral("Choose the Shared Sync Folder"), folder_->text());
    dialog->setObjectName("settings.sync.folderDialog");
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& folder) {
        if (folder.isEmpty()) return;
        folder_->setText(folder);
        mode_->button(static_cast<int>(SyncSettings::Mode::Folder))->setChecked(true);
        applyChoice();
    });
    connect(dialog, &QFileDialog::rejected, this, [this] { showSettings(); });
    dialog->open();
}

void SyncSettingsPage::applyChoice() {
    const SyncSettings settings = chosen();
    if (settings == controller_.settings()) return;
    result_->clear();
    controller_.apply(settings, std::nullopt);
}

void SyncSettingsPage::applyPassword() {
    const QString password = password_->text();
    if (password.isEmpty() || mode_->checkedId() != 2) return;
    password_->clear();
    result_->clear();
    controller_.apply(chosen(), password);
}

void SyncSettingsPage::test() {
    test_->setEnabled(false);
    result_->setText(QStringLiteral("Testing…"));
    const QString typed = password_->text();
    QPointer<SyncSettingsPage> self(this);
    controller_.test(chosen(), typed.isEmpty() ? std::nullopt : std::optional<QString>(typed),
                     [self](const QString& words) {
                         if (!self) return;
                         self->result_->setText(words);
                         self->test_->setEnabled(true);
                     });
}

}  // namespace hl
