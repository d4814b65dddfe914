// The host's buffer interface as the bridge finds it in the process: named byte
// buffers numbered from 1, addressed by a two-word key. The bridge looks these
// three functions up by their mangled names, so their signatures and the two
// structures' layouts are fixed.
//
// Every function may be called from any thread; the store is guarded by a
// mutex of its own. Nothing is thrown: failures are static message strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Buffer number n has the key {0, n}.
struct BufferKey {
    int32_t first;
    int32_t second;
};

class TCLBufferCmds {
public:
    struct BufferPair {
        const char* data;
        uint64_t size;
    };

    // Fills `key` for the buffer called `name` and returns 0; -1 (key
    // untouched) when there is none.
    static int getBufferIndex(std::string name, BufferKey& key);

    // Points `out` at `length` bytes of the buffer from `offset`; a length of
    // 0 means every byte from `offset`. The bytes stay the buffer's own and
    // are valid only until the buffer is next written or deleted. Returns
    // null, or "no such buffer", "offset out of range", "length out of range".
    static const char* getBytes(TCLBufferCmds::BufferPair& out, BufferKey key,
                                unsigned long offset, unsigned long length);

    // Writes `length` of the given bytes from `offsetFrom` into the buffer at
    // `offsetTo`; a length of 0 means every given byte from `offsetFrom`. The
    // buffer grows, zero-filled, to at least offsetTo + the count written.
    // Returns null, or "no such buffer", "offset_from out of range",
    // "length out of range", "offset_to out of range" (the buffer would pass
    // the size limit or cannot be allocated).
    static const char* setBytes(TCLBufferCmds::BufferPair& in, BufferKey key,
                                unsigned long offsetFrom, unsigned long offsetTo,
                                unsigned long length);
};

static_assert(sizeof(BufferKey) == 8 && offsetof(BufferKey, second) == 4);
static_assert(sizeof(TCLBufferCmds::BufferPair) == 16 &&
              offsetof(TCLBufferCmds::BufferPair, data) == 0 &&
              offsetof(TCLBufferCmds::BufferPair, size) == 8);
