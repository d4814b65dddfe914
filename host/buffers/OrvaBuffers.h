// The stand-in host's own side of its buffer store, used by its Tcl commands.
// Same store, same mutex as TCLBufferCmds; callable from any thread.
#pragma once

#include "TCLBufferCmds.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orva_buffers {

// The largest size a buffer may grow to through setBytes.
constexpr uint64_t max_size = uint64_t{1} << 30;

// Adds a buffer holding `bytes` and returns its number (numbers are never
// reused); 0 when the name is taken or the store cannot grow.
int32_t create(const std::string& name, std::string_view bytes) noexcept;

// A copy of buffer `number`'s bytes; none when there is no such buffer.
std::optional<std::string> contents(int32_t number);

// False when there is no such buffer.
bool remove(int32_t number) noexcept;

// Every buffer's name, in number order.
std::vector<std::string> names();

} // namespace orva_buffers
