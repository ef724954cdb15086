// TerminalOutputBatcher: coalesces a poll loop's output into batches, so that a
// chatty program reaches the renderer at most once per target latency, unless
// a full batch is ready. Owned by one poll loop and used on its thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hl {

class TerminalOutputBatcher {
  public:
    static constexpr std::uint64_t defaultTargetLatencyMilliseconds = 90;
    static constexpr std::int64_t defaultMaximumBytes = 131072;

    // Both values must be greater than zero; anything else stops the program.
    explicit TerminalOutputBatcher(
        std::uint64_t targetLatencyMilliseconds = defaultTargetLatencyMilliseconds,
        std::int64_t maximumBytes = defaultMaximumBytes);

    // Takes one poll's output (base64, absent or empty when there was none)
    // and returns the batches, as base64, to hand on now. An idle poll
    // releases everything buffered; invalid base64 is dropped.
    std::vector<std::string> ingest(const std::optional<std::string>& base64,
                                    std::uint64_t nowMilliseconds);
    // The same for raw bytes, as a waiting poll brings them.
    std::vector<std::string> ingestBytes(std::string_view bytes, std::uint64_t nowMilliseconds);
    // Everything buffered as one batch, if anything.
    std::vector<std::string> flush();

    std::uint64_t targetLatencyMilliseconds() const { return targetLatencyMilliseconds_; }
    std::int64_t maximumBytes() const { return maximumBytes_; }
    const std::string& buffered() const { return buffered_; }
    std::optional<std::uint64_t> firstByteAtMilliseconds() const {
        return firstByteAtMilliseconds_;
    }

  private:
    std::uint64_t targetLatencyMilliseconds_;
    std::int64_t maximumBytes_;
    std::string buffered_;
    std::optional<std::uint64_t> firstByteAtMilliseconds_;
};

}  // namespace hl
