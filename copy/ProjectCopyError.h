// The ways a project copy can fail, in the user's words, and the two other
// outcomes a copy step can end with: a cancellation, and a failure of the
// platform itself (a launch, a folder that could not be made) with its own text.
#pragma once

#include <QString>

#include <variant>

namespace hl {

// Which platform's words a text uses: "Mac" on macOS, "computer" elsewhere.
enum class CopyTextPlatform { MacOS, Linux };
CopyTextPlatform runningCopyTextPlatform();

class ProjectCopyError {
  public:
    enum class Kind {
        AuthenticationFailed,
        InvalidOrigin,
        DestinationExists,
        StagingPathUnavailable,
        HostVerificationFailed,
        ConnectionFailed,
        TransferFailed,
        InvalidCopy,
    };

    explicit ProjectCopyError(Kind kind) : kind_(kind) {}
    static ProjectCopyError authenticationFailed(const QString& command);
    static ProjectCopyError invalidOrigin() { return ProjectCopyError(Kind::InvalidOrigin); }
    static ProjectCopyError destinationExists() {
        return ProjectCopyError(Kind::DestinationExists);
    }
    static ProjectCopyError stagingPathUnavailable() {
        return ProjectCopyError(Kind::StagingPathUnavailable);
    }
    static ProjectCopyError hostVerificationFailed() {
        return ProjectCopyError(Kind::HostVerificationFailed);
    }
    static ProjectCopyError connectionFailed() { return ProjectCopyError(Kind::ConnectionFailed); }
    static ProjectCopyError transferFailed() { return ProjectCopyError(Kind::TransferFailed); }
    static ProjectCopyError invalidCopy() { return ProjectCopyError(Kind::InvalidCopy); }

    Kind kind() const { return kind_; }
    // The command shown with an authentication failure; empty otherwise.
    const QString& command() const { return command_; }
    QString errorDescription(CopyTextPlatform platform = runningCopyTextPlatform()) const;

    bool operator==(const ProjectCopyError&) const = default;

  private:
    Kind kind_;
    QString command_;
};

// The copy was cancelled, or its operation is no longer the current one.
struct CopyCancelled {
    bool operator==(const CopyCancelled&) const = default;
};

// A failure of the platform, described in its own words.
struct CopyPlatformError {
    QString description;
    bool operator==(const CopyPlatformError&) const = default;
};

using CopyFailure = std::variant<CopyCancelled, ProjectCopyError, CopyPlatformError>;

// The text a failure shows; a cancellation has none.
QString copyFailureText(const CopyFailure& failure);

}  // namespace hl
