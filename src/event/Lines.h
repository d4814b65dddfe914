// Where data that two threads use in turn is put, so that a crossing moves
// no cache line it does not need.
#pragma once

#include <cstddef>

namespace pytarn::event {

// The size of a cache line. Data that two threads write in turn sits on
// lines of its own: a line shared by unrelated data travels between the cores
// at every touch from either side, and a crossing is mostly such travel.
constexpr std::size_t cache_line = 64;
// Cores fetch lines in aligned pairs: a thread that watches one line takes
// the other line of its pair too, and the other thread then has to fetch that
// one back. So what one thread watches and what the other works on meanwhile
// sit in different pairs.
constexpr std::size_t line_pair = 2 * cache_line;

} // namespace pytarn::event
