// The user's words for each failure of a copy, with the platform's name for a
// machine in them.
#include "ProjectCopyError.h"

namespace hl {

CopyTextPlatform runningCopyTextPlatform() {
#ifdef __APPLE__
    return CopyTextPlatform::MacOS;
#else
    return CopyTextPlatform::Linux;
#endif
}

ProjectCopyError ProjectCopyError::authenticationFailed(const QString& command) {
    ProjectCopyError error(Kind::AuthenticationFailed);
    error.command_ = command;
    return error;
}

QString ProjectCopyError::errorDescription(CopyTextPlatform platform) const {
    const QString machine = platform == CopyTextPlatform::MacOS ? "Mac" : "computer";
    switch (kind_) {
        case Kind::AuthenticationFailed:
            return "SSH authentication was denied. On the receiving " + machine +
                   ", run this once, then retry: " + command_;
        case Kind::InvalidOrigin:
            return "The origin " + machine + " did not provide a safe copy location.";
        case Kind::DestinationExists:
            return "That destination already exists. Choose it as the local folder instead.";
        case Kind::StagingPathUnavailable:
            return "Harborlattice could not prepare a safe staging folder beside the "
                   "destination.";
        case Kind::HostVerificationFailed:
            return "SSH host verification failed. On the receiving " + machine +
                   ", verify the saved host key for the origin " + machine + ", then retry.";
        case Kind::ConnectionFailed:
            return "Harborlattice could not connect to the origin " + machine +
                   " with your existing SSH setup.";
        case Kind::TransferFailed:
            return "The project copy stopped before it completed. Its staging data was kept "
                   "for resume.";
        case Kind::InvalidCopy:
            return "The copied project did not validate, so Harborlattice left it "
                   "unconfigured.";
    }
    return {};
}

QString copyFailureText(const CopyFailure& failure) {
    if (const auto* error = std::get_if<ProjectCopyError>(&failure))
        return error->errorDescription();
    if (const auto* platform = std::get_if<CopyPlatformError>(&failure))
        return platform->description;
    return {};
}

}  // namespace hl
