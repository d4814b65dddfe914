#include "Dedent.h"

#include <algorithm>

namespace pytarn {

namespace {

constexpr std::string_view indentation = " \t";

// Calls EACH with every line of TEXT, without its line feed.
template <typename Each>
void forEachLine(std::string_view text, Each each) {
    for (std::size_t start = 0;;) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        each(text.substr(start, end - start));
        if (end == text.size()) return;
        start = end + 1;
    }
}

} // namespace

std::optional<std::string> dedented(std::string_view text) {
    std::optional<std::string_view> margin;
    bool indented = true;
    forEachLine(text, [&](std::string_view line) {
        const std::size_t depth = line.find_first_not_of(indentation);
        if (depth == std::string_view::npos || !indented) return;
        const std::string_view lead = line.substr(0, depth);
        if (!margin) {
            margin = lead;
        } else {
            const auto limit = std::min(margin->size(), lead.size());
            const auto common = std::mismatch(margin->begin(), margin->begin() + limit,
                                              lead.begin()).first - margin->begin();
            margin = margin->substr(0, static_cast<std::size_t>(common));
        }
        indented = !margin->empty();
    });
    if (!margin || !indented) return std::nullopt;
    std::string result;
    result.reserve(text.size());
    bool first = true;
    forEachLine(text, [&](std::string_view line) {
        if (!first) result += '\n';
        first = false;
        if (line.find_first_not_of(indentation) != std::string_view::npos)
            result += line.substr(margin->size());
    });
    return result;
}

} // namespace pytarn
