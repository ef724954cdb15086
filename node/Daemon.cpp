// Daemon: detaching, standard descriptors and resource limits.
#include "Daemon.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace hl::node {

bool detach() {
    if (::getsid(0) == ::getpid()) return true;
    if (::setsid() >= 0) return true;
    // setsid() refuses a process group leader: continue in a child, which is none.
    const pid_t child = ::fork();
    if (child < 0) return false;
    if (child > 0) ::_exit(0);
    return ::setsid() >= 0;
}

void keepStandardDescriptors() {
    for (int fd = 0; fd < 3; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        const int null = ::open("/dev/null", O_RDWR);
        if (null >= 0 && null != fd) {
            ::dup2(null, fd);
            ::close(null);
        }
    }
}

std::optional<rlimit> raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::nullopt;
    const rlimit original = limit;
    const rlim_t wanted = 65536;
    rlim_t target = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(limit.rlim_max, wanted);
    if (target > limit.rlim_cur) {
        limit.rlim_cur = target;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    return original;
}

}  // namespace hl::node
