#include "Installation.h"

#include "modules/EnvironmentMod.h"

namespace pytarn {

namespace fs = std::filesystem;

PyStatus describeInstallation(PyConfig* config, const fs::path& root) {
    const fs::path python = (root / "python").lexically_normal();
    const fs::path executable = environment::findProgram(python);
    if (executable.empty()) return PyStatus_Ok();
    // The home stays the fixed one; the base prefixes and the standard
    // library's directory are named outright, because Python 3.11 would take
    // the home itself, relative, as the prefix and then know no library
    // directory. The prefix is the installation's that the program really is;
    // settlePrefixes puts it in place of the home once Python runs.
    std::error_code error;
    const fs::path real = fs::canonical(executable, error);
    if (error) return PyStatus_Ok();
    const fs::path prefix = real.parent_path().parent_path();
    const fs::path stdlib = python / "lib";
    PyStatus status = PyConfig_SetBytesString(config, &config->executable, executable.c_str());
    for (wchar_t** field : {&config->prefix, &config->base_prefix, &config->exec_prefix,
                            &config->base_exec_prefix}) {
        if (!PyStatus_Exception(status))
            status = PyConfig_SetBytesString(config, field, prefix.c_str());
    }
    if (!PyStatus_Exception(status))
        status = PyConfig_SetBytesString(config, &config->stdlib_dir, stdlib.c_str());
    return status;
}

void settlePrefixes() {
    if (!PySys_GetObject("executable") || !PyUnicode_Check(PySys_GetObject("executable")) ||
        PyUnicode_GetLength(PySys_GetObject("executable")) == 0)
        return;
    PySys_SetObject("prefix", PySys_GetObject("base_prefix"));
    PySys_SetObject("exec_prefix", PySys_GetObject("base_exec_prefix"));
}

} // namespace pytarn
