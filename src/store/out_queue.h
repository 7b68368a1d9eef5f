#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

// The store requests waiting to be written, oldest first. Frames are kept
// back to back in large chunks rather than one allocation each: a reload or
// a start of thousands of conns queues tens of thousands of small frames at
// once, and a separate string per frame would cost more than the frames.
// Each frame carries its own length in its first four bytes.
class tovrin_store_queue {
  public:
    // Appends a whole frame, length bytes included; throws std::bad_alloc
    // and leaves the queue as it was when there is no room.
    void push_back(std::string_view frame);
    // The oldest frame; the queue must not be empty.
    std::string_view front() const;
    void pop_front();

    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    void clear();

  private:
    static constexpr size_t chunk_size = 64 * 1024;

    std::deque<std::string> chunks_;
    size_t head_ = 0;  // where the oldest frame starts in chunks_.front()
    size_t count_ = 0;
};
