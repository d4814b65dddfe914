// Python written inside a braced Tcl body carries the body's indentation.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pytarn {

// TEXT without the indentation (blanks and tabs) that all its non-blank lines
// share, and with lines of blanks and tabs alone left empty, as
// textwrap.dedent has it; nothing when some non-blank line is not indented
// (or there is none), so that such text is compiled as it stands.
std::optional<std::string> dedented(std::string_view text);

} // namespace pytarn
