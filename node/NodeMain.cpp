// NodeMain: the node's whole life, from the checks of its start to the end of
// its loop; main() is this with no request hook.
#include "NodeMain.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <variant>

#include "Daemon.h"
#include "Listener.h"
#include "RuntimePaths.h"
#include "Shell.h"
#include "Signals.h"

namespace hl::node {

int nodeMain(int argc, Server::RequestHook hook) {
    if (argc > 1) {
        std::fputs("usage: harborlattice-node (no arguments)\n", stderr);
        return 2;
    }
    ignoreHangups();
    keepStandardDescriptors();
    if (!detach()) return 1;
    const auto userDescriptorLimit = raiseDescriptorLimit();

    auto opened = Listener::open(hl::RuntimePaths::socketPath());
    if (std::holds_alternative<Listener::AlreadyServed>(opened)) return 0;
    if (auto* failure = std::get_if<Listener::Failure>(&opened)) {
        // Seen by whoever started the node: the application keeps it as the
        // reason that no node runs.
        std::fprintf(stderr, "harborlattice-node: %s\n", failure->reason.c_str());
        return 1;
    }
    // Serving: nothing more is said, and the starter sees its end of the
    // standard error close.
    if (const int null = ::open("/dev/null", O_RDWR); null >= 0) {
        ::dup2(null, STDERR_FILENO);
        if (null != STDERR_FILENO) ::close(null);
    }
    // The node holds no directory busy.
    if (::chdir("/") != 0) return 1;
    // The password database is read once, here, never by the loop.
    Server server(std::move(std::get<Listener>(opened)), readShellSetup(userDescriptorLimit),
                  std::move(hook));
    server.run();
    return 0;
}

}  // namespace hl::node
