// RingBuffer: circular storage that doubles from a small start up to its limit.
#include "RingBuffer.h"

#include <algorithm>
#include <cstring>

namespace hl::node {

namespace {
constexpr std::size_t initialCapacity = 1024;
}

RingBuffer::RingBuffer(std::size_t limit) : limit_(limit) {}

void RingBuffer::reserve(std::size_t needed) {
    if (needed <= capacity_) return;
    std::size_t grown = std::max(capacity_ * 2, initialCapacity);
    while (grown < needed)
        grown *= 2;
    grown = std::min(grown, limit_);
    auto storage = std::make_unique_for_overwrite<char[]>(grown);
    copyOut(0, size_, storage.get());
    storage_ = std::move(storage);
    capacity_ = grown;
    head_ = 0;
}

void RingBuffer::copyOut(std::size_t offset, std::size_t count, char* out) const {
    if (count == 0) return;
    const std::size_t start = (head_ + offset) % capacity_;
    const std::size_t first = std::min(count, capacity_ - start);
    std::memcpy(out, storage_.get() + start, first);
    std::memcpy(out + first, storage_.get(), count - first);
}

void RingBuffer::append(std::string_view bytes) {
    if (bytes.size() >= limit_) {
        bytes.remove_prefix(bytes.size() - limit_);
        size_ = 0;
        head_ = 0;
    } else if (bytes.size() > space()) {
        consume(bytes.size() - space());
    }
    if (bytes.empty()) return;
    reserve(size_ + bytes.size());
    const std::size_t tail = (head_ + size_) % capacity_;
    const std::size_t first = std::min(bytes.size(), capacity_ - tail);
    std::memcpy(storage_.get() + tail, bytes.data(), first);
    std::memcpy(storage_.get(), bytes.data() + first, bytes.size() - first);
    size_ += bytes.size();
}

std::string RingBuffer::front(std::size_t count) const {
    count = std::min(count, size_);
    std::string out(count, '\0');
    copyOut(0, count, out.data());
    return out;
}

std::string RingBuffer::back(std::size_t count) const {
    count = std::min(count, size_);
    std::string out(count, '\0');
    copyOut(size_ - count, count, out.data());
    return out;
}

void RingBuffer::consume(std::size_t count) {
    count = std::min(count, size_);
    if (count == 0) return;
    head_ = (head_ + count) % capacity_;
    size_ -= count;
    if (size_ == 0) head_ = 0;
}

void RingBuffer::release() {
    storage_.reset();
    capacity_ = 0;
    head_ = 0;
    size_ = 0;
}

}  // namespace hl::node
