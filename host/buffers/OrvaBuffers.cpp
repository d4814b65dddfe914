// The stand-in host buffer store: every buffer by number, with an index by
// name, behind one mutex (the host's Tcl thread and the bridge's Python thread
// both reach it).
#include "OrvaBuffers.h"

#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>

namespace {

struct Buffer {
    std::string name;
    std::vector<char> bytes;
};

struct Store {
    std::mutex mutex;
    std::map<int32_t, Buffer> by_number;
    std::map<std::string, int32_t> by_name;
    int32_t last_number = 0;

    // The buffer of `key`, or null; caller holds `mutex`.
    Buffer* find(BufferKey key) {
        if (key.first != 0) return nullptr;
        auto it = by_number.find(key.second);
        return it == by_number.end() ? nullptr : &it->second;
    }
};

Store& store() {
    static Store* const instance = new Store; // outlives threads still running at exit
    return *instance;
}

} // namespace

int TCLBufferCmds::getBufferIndex(std::string name, BufferKey& key) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.by_name.find(name);
    if (it == s.by_name.end()) return -1;
    key = BufferKey{0, it->second};
    return 0;
}

const char* TCLBufferCmds::getBytes(TCLBufferCmds::BufferPair& out, BufferKey key,
                                    unsigned long offset, unsigned long length) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    const Buffer* buffer = s.find(key);
    if (!buffer) return "no such buffer";
    const std::vector<char>& bytes = buffer->bytes;
    if (offset > bytes.size()) return "offset out of range";
    const unsigned long available = bytes.size() - offset;
    if (length == 0) length = available;
    if (length > available) return "length out of range"; // offset + length may not fit
    out = BufferPair{bytes.data() + offset, length};
    return nullptr;
}

const char* TCLBufferCmds::setBytes(TCLBufferCmds::BufferPair& in, BufferKey key,
                                    unsigned long offsetFrom, unsigned long offsetTo,
                                    unsigned long length) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    Buffer* buffer = s.find(key);
    if (!buffer) return "no such buffer";
    if (offsetFrom > in.size) return "offset_from out of range";
    const uint64_t available = in.size - offsetFrom;
    if (length == 0) length = available;
    if (length > available) return "length out of range";
    if (offsetTo > orva_buffers::max_size || length > orva_buffers::max_size - offsetTo)
        return "offset_to out of range";
    std::vector<char>& bytes = buffer->bytes;
    try {
        if (offsetTo + length > bytes.size()) bytes.resize(offsetTo + length);
    } catch (const std::exception&) {
        return "offset_to out of range";
    }
    if (length > 0) std::memcpy(bytes.data() + offsetTo, in.data + offsetFrom, length);
    return nullptr;
}

namespace orva_buffers {

int32_t create(const std::string& name, std::string_view bytes) noexcept {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.by_name.count(name) || s.last_number == std::numeric_limits<int32_t>::max())
        return 0;
    try {
        const int32_t number = s.last_number + 1;
        Buffer buffer{name, std::vector<char>(bytes.begin(), bytes.end())};
        auto named = s.by_name.emplace(name, number).first;
        try {
            s.by_number.emplace(number, std::move(buffer));
        } catch (...) {
            s.by_name.erase(named);
            throw;
        }
        s.last_number = number;
        return number;
    } catch (const std::exception&) {
        return 0;
    }
}

std::optional<std::string> contents(int32_t number) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    const Buffer* buffer = s.find(BufferKey{0, number});
    if (!buffer) return std::nullopt;
    return std::string(buffer->bytes.begin(), buffer->bytes.end());
}

bool remove(int32_t number) noexcept {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.by_number.find(number);
    if (it == s.by_number.end()) return false;
    s.by_name.erase(it->second.name);
    s.by_number.erase(it);
    return true;
}

std::vector<std::string> names() {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> out;
    out.reserve(s.by_number.size());
    for (const auto& entry : s.by_number) out.push_back(entry.second.name);
    return out;
}

} // namespace orva_buffers
