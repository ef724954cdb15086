// DeviceCopyEndpoint: how the user's other machines reach this one over ssh,
// as published with each project's origin. The machine's Tailscale name is
// preferred; without it, the local host name stands in.
#pragma once

#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>

namespace hl {

struct DeviceCopyEndpoint {
    QString deviceName;
    QString sshHost;
    QString sshUser;

    // The Tailscale identity when the tailscale command answers within two
    // seconds, else the local names. Blocks the calling thread meanwhile.
    static DeviceCopyEndpoint discover();
    // The same, looking for the tailscale command at the given paths in order.
    static DeviceCopyEndpoint discover(const QStringList& tailscaleCandidates,
                                       std::chrono::milliseconds timeout);
    // The endpoint from this machine's host names and the user's account.
    static DeviceCopyEndpoint localIdentity();
    // Where the tailscale command is looked for on this platform.
    static QStringList tailscaleCandidates();

    bool operator==(const DeviceCopyEndpoint&) const = default;
};

// The endpoint that a `tailscale status --json` report describes, if any.
std::optional<DeviceCopyEndpoint> endpointFromTailscaleStatus(const QByteArray& json,
                                                              const QString& userName);

}  // namespace hl
