// TerminalOutputBatcher: full batches at once, the rest after the target
// latency or at the next idle poll.
#include "TerminalOutputBatcher.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Base64.h"

namespace hl {

TerminalOutputBatcher::TerminalOutputBatcher(std::uint64_t targetLatencyMilliseconds,
                                             std::int64_t maximumBytes)
    : targetLatencyMilliseconds_(targetLatencyMilliseconds), maximumBytes_(maximumBytes) {
    if (targetLatencyMilliseconds == 0 || maximumBytes <= 0) {
        std::fputs("TerminalOutputBatcher: latency and batch size must be positive\n", stderr);
        std::abort();
    }
}

std::vector<std::string> TerminalOutputBatcher::ingest(const std::optional<std::string>& base64,
                                                       std::uint64_t nowMilliseconds) {
    if (!base64 || base64->empty()) return flush();
    auto bytes = base64::decode(*base64);
    if (!bytes || bytes->empty()) return {};
    return ingestBytes(*bytes, nowMilliseconds);
}

std::vector<std::string> TerminalOutputBatcher::ingestBytes(std::string_view bytes,
                                                            std::uint64_t nowMilliseconds) {
    if (bytes.empty()) return flush();
    if (buffered_.empty()) firstByteAtMilliseconds_ = nowMilliseconds;
    buffered_ += bytes;

    std::vector<std::string> batches;
    const auto size = static_cast<std::size_t>(maximumBytes_);
    std::size_t taken = 0;
    while (buffered_.size() - taken >= size) {
        batches.push_back(base64::encode(std::string_view(buffered_).substr(taken, size)));
        taken += size;
    }
    buffered_.erase(0, taken);
    if (buffered_.empty()) {
        firstByteAtMilliseconds_.reset();
        return batches;
    }
    if (firstByteAtMilliseconds_ && nowMilliseconds >= *firstByteAtMilliseconds_ &&
        nowMilliseconds - *firstByteAtMilliseconds_ >= targetLatencyMilliseconds_) {
        for (auto& batch : flush())
            batches.push_back(std::move(batch));
    }
    return batches;
}

std::vector<std::string> TerminalOutputBatcher::flush() {
    if (buffered_.empty()) return {};
    std::vector<std::string> batch{base64::encode(buffered_)};
    buffered_.clear();
    firstByteAtMilliseconds_.reset();
    return batch;
}

}  // namespace hl
