// Signals: dispositions and the self-pipe.
#include "Signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace hl::node {

namespace {

int pipeWriteEnd = -1;

// Writes the signal's number into the pipe; the loop reads it.
void notify(int signal) {
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t ignored = ::write(pipeWriteEnd, &byte, 1);
    errno = saved;
}

void install(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | (signal == SIGCHLD ? SA_NOCLDSTOP : 0);
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

void ignoreHangups() {
    install(SIGHUP, SIG_IGN);
    install(SIGPIPE, SIG_IGN);
}

SignalPipe::SignalPipe() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    read_.reset(ends[0]);
    write_.reset(ends[1]);
    for (int fd : ends) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    pipeWriteEnd = write_.get();
    install(SIGCHLD, notify);
    install(SIGTERM, notify);
    install(SIGINT, notify);
}

SignalPipe::~SignalPipe() {
    install(SIGCHLD, SIG_DFL);
    install(SIGTERM, SIG_DFL);
    install(SIGINT, SIG_DFL);
    pipeWriteEnd = -1;
}

SignalPipe::Arrived SignalPipe::drain() {
    Arrived arrived;
    unsigned char bytes[64];
    ssize_t n;
    while ((n = ::read(read_.get(), bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (bytes[i] == SIGCHLD) arrived.child = true;
            if (bytes[i] == SIGTERM || bytes[i] == SIGINT) arrived.stop = true;
        }
    }
    return arrived;
}

}  // namespace hl::node
