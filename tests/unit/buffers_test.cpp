// The stand-in host buffer library's edge rules that the Tcl suite cannot reach:
// unsigned wrap-around and a write of nothing.
#include "OrvaBuffers.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using Cmds = TCLBufferCmds;

TEST(Buffers, ReadsAndWritesRefuseWrapAroundAndGrowWithZeros) {
    const BufferKey key{0, orva_buffers::create("edges", "abcd")};
    Cmds::BufferPair whole{nullptr, 0}, atEnd{nullptr, 99}, out{nullptr, 0};
    ASSERT_EQ(Cmds::getBytes(whole, key, 0, 0), nullptr);
    ASSERT_EQ(Cmds::getBytes(atEnd, key, 4, 0), nullptr);
    EXPECT_EQ(std::string(whole.data, whole.size), "abcd");
    EXPECT_TRUE(atEnd.data == whole.data + 4 && atEnd.size == 0);
    // offset + length wraps to a small number; it must still be refused.
    EXPECT_STREQ(Cmds::getBytes(out, key, 2, ULONG_MAX - 1), "length out of range");
    EXPECT_STREQ(Cmds::getBytes(out, key, ULONG_MAX, 1), "offset out of range");
    EXPECT_STREQ(Cmds::getBytes(out, BufferKey{1, key.second}, 0, 0), "no such buffer");
    char given[] = "xyz";
    Cmds::BufferPair in{given, 3}, none{nullptr, 0};
    EXPECT_STREQ(Cmds::setBytes(in, key, 1, 0, ULONG_MAX), "length out of range");
    EXPECT_STREQ(Cmds::setBytes(in, key, 0, ULONG_MAX - 1, 3), "offset_to out of range");
    EXPECT_EQ(orva_buffers::contents(key.second), "abcd");
    // Nothing to copy still extends the buffer to offset_to.
    ASSERT_EQ(Cmds::setBytes(none, key, 0, 6, 0), nullptr);
    ASSERT_EQ(Cmds::setBytes(in, key, 1, 8, 1), nullptr);
    EXPECT_EQ(orva_buffers::contents(key.second), std::string("abcd\0\0\0\0y", 9));
}
