// The idea inbox: each improvement idea the user queues becomes one small JSON
// report in a private folder, for a later local agent director session to
// claim. Nothing here sends or runs anything. The folder is treated as hostile
// ground: it is opened without following links and checked for its owner, and
// a report appears only through an exclusive rename, so that a reader never
// sees half a report and a report is never replaced.
#pragma once

#include <QDateTime>
#include <QString>
#include <QUuid>

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "RuntimePaths.h"
#include "UniqueFd.h"

namespace hl {

// One queued report, as stored: exactly these five keys.
struct IdeaInboxRecord {
    static constexpr int schemaVersion = 1;
    // What the user agreed to by queueing.
    static constexpr const char* processingConsent = "agent_director_review";

    QUuid id;
    QDateTime createdAt;
    QString idea;

    // Pretty-printed JSON with sorted keys; the date in ISO 8601 (UTC, seconds).
    std::string encoded() const;
};

// What a save returns: the report's identity and where it lies.
struct SavedIdea {
    QUuid id;
    std::filesystem::path reportURL;
};

struct IdeaInboxStore {
    IdeaInboxStore() = delete;

    static constexpr std::size_t maximumIdeaBytes = 8000;
    static constexpr std::size_t maximumRecordBytes = 12000;

    class SaveError : public std::runtime_error {
      public:
        enum Case { invalidIdea, unsafeDirectory, writeFailed };
        // what() says what was wrong and, but for an invalid idea, in which
        // folder: `folder` and the system's `reason` when there is one.
        explicit SaveError(Case which, const std::filesystem::path& folder = {},
                           const std::string& reason = {});
        Case which() const { return which_; }

      private:
        Case which_;
    };

    // Queues the trimmed idea as a new report in `directory`. Throws SaveError,
    // or std::filesystem::filesystem_error when the folder's parent cannot be
    // made. The last three arguments exist so that a save can be reproduced.
    static SavedIdea save(
        const QString& idea,
        const std::filesystem::path& directory = RuntimePaths::ideaInboxDirectory(),
        const QDateTime& now = QDateTime::currentDateTimeUtc(),
        const QUuid& id = QUuid::createUuid());

    // "<uuid in lower case>.queued.json".
    static std::string reportName(const QUuid& id);

    // Opens the inbox folder, made 0700 and owned by this user, through a
    // descriptor that never followed a link. Throws SaveError(unsafeDirectory),
    // or the parent's creation failure as it is.
    static UniqueFd openPrivateDirectory(const std::filesystem::path& directory);

    // Writes every byte, repeating interrupted calls; false on any failure.
    static bool writeAll(int fd, std::string_view bytes);
};

}  // namespace hl
