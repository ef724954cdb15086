// Builders of shared documents for the sync tests.
#pragma once

#include <QJsonObject>
#include <QUuid>

#include <functional>
#include <optional>

#include "SharedSnapshot.h"

namespace hl::test {

QJsonObject leafLayout(const QUuid& pane);
QJsonObject splitLayout(const QJsonObject& first, const QJsonObject& second);
// A tab whose layout splits its panes left to right.
SharedTab tabWithPanes(const QList<QUuid>& panes, const QString& title = "shell");
// A valid origin on a computer called "Studio".
ProjectOrigin sampleOrigin(const QString& root = "/home/ada/alpha");
// Projects "alpha" (with origin) and "beta", a workspace for "alpha" with two tabs
// (the second split in two).
SharedContent sampleContent();
// A snapshot of `content` at `milliseconds` past 1970.
SharedSnapshot snapshotAt(double milliseconds, const SharedContent& content = sampleContent(),
                          const QUuid& revision = QUuid::createUuid());

// The kind of `Error` that `action` throws; nothing if it throws none.
template <typename Error>
std::optional<typename Error::Kind> errorKind(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.kind();
    }
    return std::nullopt;
}

}  // namespace hl::test
