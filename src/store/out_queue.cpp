#include "store/out_queue.h"

#include "store/frame.h"

void tovrin_store_queue::push_back(std::string_view frame) {
    if (chunks_.empty() || chunks_.back().size() + frame.size() > chunks_.back().capacity()) {
        size_t room = frame.size() > chunk_size ? frame.size() : chunk_size;
        if (!chunks_.empty() && chunks_.back().empty()) {
            // The chunk kept by an emptied queue; reserve leaves it as it
            // was when it throws.
            chunks_.back().reserve(room);
        } else {
            std::string chunk;
            chunk.reserve(room);
            chunks_.push_back(std::move(chunk));
        }
    }
    // Within the reserved capacity: cannot fail.
    chunks_.back().append(frame);
    count_++;
}

std::string_view tovrin_store_queue::front() const {
    const std::string &chunk = chunks_.front();
    const char *frame = chunk.data() + head_;
    auto header = reinterpret_cast<const unsigned char *>(frame);
    return std::string_view(frame, TOVRIN_FRAME_HEADER + tovrin_frame_length(header));
}

void tovrin_store_queue::pop_front() {
    head_ += front().size();
    count_--;
    if (head_ == chunks_.front().size()) {
        // The last chunk is kept for the frames to come, unless it was one
        // that a single large frame had made.
        if (chunks_.size() > 1 || chunks_.front().capacity() > chunk_size)
            chunks_.pop_front();
        else
            chunks_.front().clear();
        head_ = 0;
    }
}

void tovrin_store_queue::clear() {
    chunks_.clear();
    head_ = 0;
    count_ = 0;
}
