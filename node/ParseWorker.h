// ParseWorker: parses large requests on a thread of its own, so that the event
// loop never spends more than a moment on one request however large it is.
//
// Words used here: a *job* is one request text with the ticket of the
// connection that sent it; a *result* is its parse, picked up by the loop once
// the worker's descriptor is readable. The worker shares nothing with the loop
// but the two queues, under one lock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "Request.h"
#include "UniqueFd.h"

namespace hl::node {

class ParseWorker {
  public:
    using Parsed = std::variant<Request, RequestError>;
    struct Result {
        std::uint64_t ticket;
        Parsed parsed;
    };

    // Requests up to this size are parsed on the loop (well under a millisecond).
    static constexpr std::size_t inlineLimit = 64 * 1024;

    ParseWorker();
    ~ParseWorker();
    ParseWorker(const ParseWorker&) = delete;
    ParseWorker& operator=(const ParseWorker&) = delete;

    // Readable while results wait.
    int fd() const { return wake_[0].get(); }
    // Queues one request text.
    void submit(std::uint64_t ticket, std::string text);
    // Takes every finished result.
    std::vector<Result> takeResults();
    // Bytes of request text queued or being parsed.
    std::size_t bytesHeld() const;

  private:
    void work();

    mutable std::mutex lock_;
    std::condition_variable wanted_;
    std::deque<std::pair<std::uint64_t, std::string>> jobs_;
    std::vector<Result> results_;
    std::size_t bytesHeld_ = 0;
    bool stopping_ = false;
    UniqueFd wake_[2];
    std::thread thread_;
};

}  // namespace hl::node
