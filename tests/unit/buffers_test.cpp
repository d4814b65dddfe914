// The stand-in host buffer library's edge rules that the Tcl suite cannot
// reach: unsigned wrap-around, reads at the very end, keys, and the store shared
// between threads.
#include "OrvaBuffers.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>

namespace {

using Pair = TCLBufferCmds::BufferPair;

// A new buffer holding `bytes`, under a name no other test uses.
BufferKey makeBuffer(const std::string& name, std::string_view bytes) {
    const int32_t number = orva_buffers::create(name, bytes);
    EXPECT_GT(number, 0);
    return BufferKey{0, number};
}

TEST(Buffers, ReadsPointIntoTheBufferUpToItsEnd) {
    const BufferKey key = makeBuffer("reads", "abcd");
    Pair whole{nullptr, 0};
    ASSERT_EQ(TCLBufferCmds::getBytes(whole, key, 0, 0), nullptr);
    EXPECT_EQ(std::string(whole.data, whole.size), "abcd");
    Pair at_end{nullptr, 99};
    ASSERT_EQ(TCLBufferCmds::getBytes(at_end, key, 4, 0), nullptr);
    EXPECT_EQ(at_end.data, whole.data + 4);
    EXPECT_EQ(at_end.size, 0u);
    Pair out{nullptr, 0};
    EXPECT_STREQ(TCLBufferCmds::getBytes(out, key, 4, 1), "length out of range");
    // offset + length wraps to a small number; it must still be refused.
    EXPECT_STREQ(TCLBufferCmds::getBytes(out, key, 2, ULONG_MAX - 1), "length out of range");
    EXPECT_STREQ(TCLBufferCmds::getBytes(out, key, ULONG_MAX, 1), "offset out of range");
    EXPECT_STREQ(TCLBufferCmds::getBytes(out, BufferKey{1, key.second}, 0, 0), "no such buffer");
}

TEST(Buffers, WritesRefuseWrapAroundAndGrowWithZeros) {
    const BufferKey key = makeBuffer("writes", "ab");
    char given[] = "xyz";
    Pair in{given, 3};
    EXPECT_STREQ(TCLBufferCmds::setBytes(in, key, 1, 0, ULONG_MAX), "length out of range");
    EXPECT_STREQ(TCLBufferCmds::setBytes(in, key, 0, ULONG_MAX - 1, 3), "offset_to out of range");
    EXPECT_STREQ(TCLBufferCmds::setBytes(in, key, 0, orva_buffers::max_size - 2, 3),
                 "offset_to out of range");
    EXPECT_EQ(orva_buffers::contents(key.second), "ab");

    // Nothing to copy still extends the buffer to offset_to.
    Pair none{nullptr, 0};
    ASSERT_EQ(TCLBufferCmds::setBytes(none, key, 0, 4, 0), nullptr);
    ASSERT_EQ(TCLBufferCmds::setBytes(in, key, 1, 6, 1), nullptr);
    EXPECT_EQ(orva_buffers::contents(key.second), std::string("ab\0\0\0\0y", 7));
}

TEST(Buffers, OneThreadChangesTheStoreWhileAnotherLooksUp) {
    std::thread changer([] {
        for (int i = 0; i < 2000; ++i) {
            const int32_t number = orva_buffers::create("churn", "x");
            orva_buffers::remove(number);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        BufferKey key{0, 0};
        if (TCLBufferCmds::getBufferIndex("churn", key) == 0) {
            EXPECT_GT(key.second, 0);
        }
        for (const std::string& name : orva_buffers::names()) EXPECT_FALSE(name.empty());
    }
    changer.join();
    BufferKey key{0, 0};
    EXPECT_EQ(TCLBufferCmds::getBufferIndex("churn", key), -1);
}

} // namespace
