// The Updates page's controls; the application keeps and applies them.
#include "UpdateSettingsPage.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>

#include "HarborlatticeApp.h"

namespace hl {

UpdateSettingsPage::UpdateSettingsPage(HarborlatticeApp& app, QWidget* parent)
    : QWidget(parent), app_(app) {
    setObjectName("settings.updates");
    const UpdateSettings settings = app.updateSettings();
    automatic_ = new QCheckBox(QStringLiteral("Check for updates automatically"), this);
    automatic_->setObjectName("settings.updates.automatic");
    automatic_->setChecked(settings.automaticallyChecks);
    feed_ = new QLineEdit(settings.feedURL, this);
    feed_->setObjectName("settings.updates.feed");
    const QUrl buildFeed = UpdateChannel::standard().feedURL;
    feed_->setPlaceholderText(buildFeed.isEmpty() ? QStringLiteral("https://…/appcast.xml")
                                                  : buildFeed.toString());
    note_ = new QLabel(this);
    note_->setObjectName("settings.updates.note");
    note_->setWordWrap(true);
    auto* form = new QFormLayout(this);
    form->addRow(automatic_);
    form->addRow(QStringLiteral("Update feed:"), feed_);
    form->addRow(note_);
    showNote();
    connect(automatic_, &QCheckBox::toggled, this, &UpdateSettingsPage::apply);
    connect(feed_, &QLineEdit::editingFinished, this, &UpdateSettingsPage::apply);
}

void UpdateSettingsPage::apply() {
    UpdateSettings settings;
    settings.automaticallyChecks = automatic_->isChecked();
    settings.feedURL = feed_->text().trimmed();
    if (settings == app_.updateSettings()) return;
    app_.setUpdateSettings(settings);
    showNote();
}

void UpdateSettingsPage::showNote() {
    const UpdateChannel channel = app_.updateSettings().channel(UpdateChannel::standard());
    if (channel.packageManaged) {
        note_->setText(QStringLiteral("Updates come from your package manager"));
    } else if (!isSecureUpdateURL(channel.feedURL)) {
        note_->setText(QStringLiteral("The feed must be an https:// address."));
    } else {
        note_->setText(QStringLiteral("Updates are checked at ") + channel.feedURL.toString());
    }
}

}  // namespace hl
