// ScriptedPeer: accept, read the request to end of file, play the script, close.
#include "ScriptedPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace hl::test {

ScriptedPeer::ScriptedPeer(std::string path, std::vector<PeerStep> steps, bool readRequest)
    : path_(std::move(path)), steps_(std::move(steps)), readRequest_(readRequest) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) throw std::runtime_error("peer path too long");
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    ::unlink(path_.c_str());
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0) {
        throw std::runtime_error("peer cannot listen at " + path_);
    }
    thread_ = std::thread([this] { serve(); });
}

ScriptedPeer::~ScriptedPeer() {
    stopping_ = true;
    thread_.join();
    ::close(listener_);
    ::unlink(path_.c_str());
}

std::string ScriptedPeer::lastRequest() const {
    std::lock_guard guard(mutex_);
    return lastRequest_;
}

void ScriptedPeer::serve() {
    while (!stopping_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 20) <= 0) continue;
        const int connection = ::accept(listener_, nullptr, nullptr);
        if (connection < 0) continue;
        ++connections_;
        if (readRequest_) {
            std::string request;
            char buffer[4096];
            ssize_t n;
            while ((n = ::read(connection, buffer, sizeof buffer)) > 0)
                request.append(buffer, n);
            std::lock_guard guard(mutex_);
            lastRequest_ = request;
        }
        for (const auto& step : steps_) {
            std::this_thread::sleep_for(step.pause);
            std::size_t offset = 0;
            while (offset < step.bytes.size()) {
                const ssize_t n = ::send(connection, step.bytes.data() + offset,
                                         step.bytes.size() - offset, MSG_NOSIGNAL);
                if (n <= 0) break;
                offset += static_cast<std::size_t>(n);
            }
        }
        ::close(connection);
    }
}

}  // namespace hl::test
