#include "Installation.h"

#include <string>
#include <unistd.h>

namespace pytarn {

namespace {

namespace fs = std::filesystem;

// The installation's program, as the installation names it (a link is kept as
// a link, as a virtual environment's bin/python is); empty when it has none.
fs::path findExecutable(const fs::path& home) {
    const std::string version =
        "python" + std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);
    for (const std::string& name : {version, std::string("python3"), std::string("python")}) {
        const fs::path program = home / "bin" / name;
        if (access(program.c_str(), X_OK) == 0) return program;
    }
    return {};
}

} // namespace

PyStatus describeInstallation(PyConfig* config, const fs::path& root) {
    const fs::path executable = findExecutable((root / "python").lexically_normal());
    if (executable.empty()) return PyStatus_Ok();
    PyStatus status = PyConfig_SetBytesString(config, &config->executable, executable.c_str());
    // Python 3.11 takes a home as the prefix as it stands and then knows no
    // standard library directory; without one it searches from the program's
    // real location, as python3 does for itself. The home named the same
    // installation.
    if (!PyStatus_Exception(status))
        status = PyConfig_SetString(config, &config->home, nullptr);
    return status;
}

} // namespace pytarn
