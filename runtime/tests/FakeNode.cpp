// A stand-in node for the supervisor's tests. Each start appends one line to
// $FAKE_NODE_LOG: "program pid sid cwd stdin-is-null socket descriptors", then it answers every
// connection on $HARBORLATTICE_SOCKET with {"ok":true} for $FAKE_NODE_LIFETIME_MS.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int, char** argv) {
    const char* logPath = std::getenv("FAKE_NODE_LOG");
    const char* socketPath = std::getenv("HARBORLATTICE_SOCKET");
    const char* lifetime = std::getenv("FAKE_NODE_LIFETIME_MS");
    if (logPath == nullptr) return 2;

    struct stat in {
    }, null{};
    const bool stdinIsNull = ::fstat(0, &in) == 0 && ::stat("/dev/null", &null) == 0 &&
                             in.st_rdev == null.st_rdev && S_ISCHR(in.st_mode);
    // Descriptors open at the start (the listing's own is not counted).
    int descriptors = -1;
    if (DIR* fds = ::opendir("/proc/self/fd")) {
        while (dirent* entry = ::readdir(fds)) {
            if (entry->d_name[0] != '.') ++descriptors;
        }
        ::closedir(fds);
    }
    char cwd[4096] = "?";
    if (::getcwd(cwd, sizeof cwd) == nullptr) std::strcpy(cwd, "?");
    if (FILE* log = std::fopen(logPath, "a")) {
        // argv[0] is the path the node was started by.
        std::fprintf(log, "%s %d %d %s %d %s %d\n", argv[0], ::getpid(), ::getsid(0), cwd,
                     stdinIsNull ? 1 : 0, socketPath != nullptr ? socketPath : "(unset)",
                     descriptors);
        std::fclose(log);
    }
    if (socketPath == nullptr || std::strlen(socketPath) >= sizeof(sockaddr_un{}.sun_path))
        return 0;

    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socketPath);
    ::unlink(socketPath);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 3;
    ::listen(listener, 16);
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::milliseconds(lifetime != nullptr ? std::atoi(lifetime) : 3000);
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd waiting{listener, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0) continue;
        const int connection = ::accept(listener, nullptr, nullptr);
        if (connection < 0) continue;
        char buffer[4096];
        while (::read(connection, buffer, sizeof buffer) > 0) {
        }
        const char reply[] = "{\"ok\":true}\n";
        (void)!::write(connection, reply, sizeof reply - 1);
        ::close(connection);
    }
    ::unlink(socketPath);
    return 0;
}
