// A record in memory behind the exchange of the real transports. A test can
// damage it, take the account away, make saves find the tag moved, or count
// the calls.
#pragma once

#include <atomic>
#include <mutex>

#include "SharedStateTransport.h"

namespace hl::test {

class MemoryRecordTransport final : public RecordSharedStateTransport {
  public:
    bool isConfigured() const override { return true; }
    bool accountIsAvailable() override { return available; }
    void setPayload(const QByteArray& bytes) {
        std::lock_guard guard(mutex_);
        record_ = SharedStateRecord{bytes, QByteArray::number(++generation_)};
    }
    QByteArray payload() {
        std::lock_guard guard(mutex_);
        return record_ ? record_->payload : QByteArray();
    }
    std::atomic<bool> available{true};
    // The next saves that find the tag moved, whatever it is.
    std::atomic<int> failingSaves{0};
    std::atomic<int> reads{0}, writes{0}, attempts{0}, openAttempts{0};

  protected:
    std::optional<SharedStateRecord> readRecord() override {
        std::lock_guard guard(mutex_);
        ++reads;
        return record_;
    }
    SaveOutcome writeRecord(const QByteArray& payload,
                            const std::optional<QByteArray>& expectedTag) override {
        std::lock_guard guard(mutex_);
        const std::optional<QByteArray> tag =
            record_ ? std::optional<QByteArray>(record_->tag) : std::nullopt;
        if (failingSaves > 0) {
            --failingSaves;
            return SaveOutcome::TagMoved;
        }
        if (tag != expectedTag) return SaveOutcome::TagMoved;
        record_ = SharedStateRecord{payload, QByteArray::number(++generation_)};
        ++writes;
        return SaveOutcome::Saved;
    }
    void beginAttempt() override {
        ++attempts;
        ++openAttempts;
    }
    void endAttempt() noexcept override { --openAttempts; }

  private:
    std::mutex mutex_;
    std::optional<SharedStateRecord> record_;
    int generation_ = 0;
};

}  // namespace hl::test
