#include "PeerCredentials.h"

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

namespace hl {

bool peerIsOwner(int fd) {
#if defined(SO_PEERCRED)
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
    return credentials.uid == ::geteuid();
#else
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(fd, &uid, &gid) != 0) return false;
    return uid == ::geteuid();
#endif
}

}  // namespace hl
