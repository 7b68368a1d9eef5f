#include "store/out_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

namespace {

// A frame of the given body length whose bytes say which frame it is.
std::string frame(size_t body, int id) {
    std::string f(4 + body, static_cast<char>('a' + id % 26));
    f[0] = static_cast<char>(body >> 24);
    f[1] = static_cast<char>(body >> 16);
    f[2] = static_cast<char>(body >> 8);
    f[3] = static_cast<char>(body);
    return f;
}

}  // namespace

// Frames come out whole and in order across chunk boundaries, around frames
// larger than a chunk, and after the queue has run dry in between.
TEST(StoreQueue, FramesComeOutWholeAndInOrder) {
    tovrin_store_queue queue;
    std::deque<std::string> expected;
    const size_t sizes[] = {20, 70000, 3, 65532, 40, 0, 33, 9000};
    for (int round = 0; round < 3; round++) {
        for (int i = 0; i < 300; i++) {
            expected.push_back(frame(sizes[(i + round) % 8], i));
            queue.push_back(expected.back());
            if (i % 3 == 0) {
                ASSERT_EQ(queue.front(), expected.front());
                queue.pop_front();
                expected.pop_front();
            }
        }
        ASSERT_EQ(queue.size(), expected.size());
        while (!queue.empty()) {
            ASSERT_EQ(queue.front(), expected.front());
            queue.pop_front();
            expected.pop_front();
        }
    }
}
