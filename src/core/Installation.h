// Where the embedded interpreter says it comes from.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <filesystem>

namespace pytarn {

// Names the installation's own program under ROOT/python/bin (ROOT absolute)
// as the configuration's executable, so that Python finds its prefixes and
// its standard library's directory from there as python3 does: sys.executable
// is then a Python that Python code can start, sys.prefix and
// sys._stdlib_dir are absolute and true, and frozen modules have __file__.
// Without such a program Python sees only the host and the configuration
// stays as it was. Before Python starts.
PyStatus describeInstallation(PyConfig* config, const std::filesystem::path& root);

// Once Python runs: sys.prefix and sys.exec_prefix become the installation's
// prefixes in place of the fixed home. Interpreter lock held.
void settlePrefixes();

} // namespace pytarn
