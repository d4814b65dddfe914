// The built-in module _pytarn_env: the parts of Python's environment that a
// python3 user takes for granted and that a fixed, site-less start-up lacks.
// It is set up after the bootstrap and leaves what the bootstrap made alone.
#pragma once

#include "convert/SmartObj.h"

#include <filesystem>

namespace pytarn::environment {

// Adds the module to the interpreter's built-in modules; before Python starts.
void registerModule();

// The step after the bootstrap: the search path's entry "." looks in the
// directory that is current at each import, and the interactive builtins
// (help, exit, quit, copyright, credits, license) exist; sys._stdlib_dir is
// the search path's directory of the standard library. Python thread,
// interpreter lock held; false with the Python error left set on failure.
bool install();

// The program of the Python installation or virtual environment PREFIX, as
// it names it (a link stays a link): bin/python3.x, bin/python3 or bin/python,
// the first that may be run; empty when there is none. Any thread.
std::filesystem::path findProgram(const std::filesystem::path& prefix);

// Puts the packages of the virtual environment in the directory DIR (native
// text) ahead of the system's, with their .pth files processed, and makes the
// environment sys.prefix and its Python sys.executable. Python thread, lock
// held; a new reference to True (used) or False (no packages for this Python
// there, which is written to sys.stderr), or null with an error set.
PyObject* useVirtualEnv(const char* dir);

} // namespace pytarn::environment
