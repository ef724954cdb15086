// RingBuffer: a bounded byte queue whose storage grows on demand, so that a
// session that prints little costs little.
//
// Words used here: the *limit* is the most the buffer ever holds; *capacity* is
// what is allocated now (it doubles up to the limit). Appending beyond the limit
// drops the oldest bytes, which makes the same type serve as the retained tail
// of a terminal and, when the writer respects space(), as a lossless queue.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace hl::node {

class RingBuffer {
  public:
    explicit RingBuffer(std::size_t limit);

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::size_t limit() const { return limit_; }
    std::size_t capacity() const { return capacity_; }
    // Bytes that can be appended before the oldest are dropped.
    std::size_t space() const { return limit_ - size_; }

    // Appends bytes, dropping the oldest ones when the limit is passed.
    void append(std::string_view bytes);
    // Copies out the oldest count bytes (fewer if the buffer holds fewer).
    std::string front(std::size_t count) const;
    // Copies out the newest count bytes (fewer if the buffer holds fewer).
    std::string back(std::size_t count) const;
    // Drops the oldest count bytes.
    void consume(std::size_t count);
    // Empties the buffer and gives its storage back.
    void release();

  private:
    // Makes room for at least needed bytes, keeping the contents in order.
    void reserve(std::size_t needed);
    // Copies count bytes starting offset bytes after the oldest into out.
    void copyOut(std::size_t offset, std::size_t count, char* out) const;

    std::size_t limit_;
    std::unique_ptr<char[]> storage_;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

}  // namespace hl::node
