// A test run on each kind of shared record: a real folder, and a WebDAV file on
// a real Apache (one server for the whole suite, started by its first case).
#pragma once

#include <gtest/gtest.h>

#include <QString>
#include <QUrl>

#include <memory>

#include "ApacheServer.h"
#include "FolderSharedStateTransport.h"
#include "WebDavSharedStateTransport.h"

namespace hl::test {

enum class RecordKind { Folder, WebDav };

class RecordKindTest : public ::testing::TestWithParam<RecordKind> {
  public:
    // The cases' names: "Folder" and "WebDav".
    static std::string kindName(const ::testing::TestParamInfo<RecordKind>& info) {
        return info.param == RecordKind::Folder ? "Folder" : "WebDav";
    }

  protected:
    static void TearDownTestSuite() {
        delete apache;
        apache = nullptr;
    }
    // A fresh record for this case: a file named after `prefix` on Apache, or
    // the folder `folderPath`.
    void chooseRecord(const QString& prefix, const QString& folderPath) {
        folder = folderPath;
        if (GetParam() != RecordKind::WebDav) return;
        if (!apache) apache = new ApacheServer;
        ASSERT_TRUE(apache->isRunning()) << apache->error().toStdString();
        url = apache->url(QStringLiteral("%1-%2.json").arg(prefix).arg(++records));
    }
    std::shared_ptr<SharedStateTransport> transport() const {
        if (!url.isEmpty()) return std::make_shared<WebDavSharedStateTransport>(url);
        return std::make_shared<FolderSharedStateTransport>(folder);
    }

    inline static ApacheServer* apache = nullptr;
    inline static int records = 0;
    QString folder;
    QUrl url;
};

}  // namespace hl::test
