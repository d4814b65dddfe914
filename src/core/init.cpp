// Start-up of the embedded interpreter on the Python thread.
#include "Bridge.h"
#include "Environment.h"

#include "Installation.h"
#include "convert/PyErrors.h"
#include "modules/PytarnMod.h"
#include "modules/EnvironmentMod.h"
#include "modules/StreamsMod.h"

#include <filesystem>
#include <iostream>
#include <string>

namespace pytarn {

namespace {

// Routes sys.stdout and sys.stderr to the host's channels, makes `tcl` and
// `TclError` built-in names and imports the host's helper module. Some lines
// end in blanks; the text is kept exactly as hosts have always seen it, but for the
// channels' `encoding`, which the standard library reads (doctest, for one).
const char* const bootstrap_script =
    "import sys, os\n"
    "for i,v in enumerate(sys.path):\n"
    "    sys.path[i] = os.path.join(os.path.abspath(os.path.curdir), v).replace('\\\\', '/')\n"
    "sys.path.insert(0, '.')\n"
    "import TclMod\n"
    "class TCL():               \n"
    "    stdout = TclMod.stdout \n"
    "    stderr = TclMod.stderr \n"
    "    set    = TclMod.set    \n"
    "    get    = TclMod.get    \n"
    "    eval   = TclMod.eval   \n"
    "TclMod.TCL = TCL           \n"
    "del TCL                    \n"
    "__tcl = TclMod.TCL()       \n"
    "tcl = __tcl                \n"
    "TclMod.tcl = __tcl         \n"
    "class TclError(Exception): pass \n"
    "tcl.TclError = TclError         \n"
    "TclMod.TclError = TclError      \n"
    "class _Channel():                    \n"
    "    encoding = 'utf-8'\n"
    "    def __init__(self, write_func, name):\n"
    "        self.write_func = write_func \n"
    // The built-in itself, so that print calls it without a Python frame.
    "        self.write = write_func      \n"
    "        self._flush = 'catch {flush ' + name + '}'\n"
    // Output does not wait for Tcl; flush does. Tcl evaluates the script only
    // after everything printed before it has been written, and then empties
    // its own channel buffer too, as flush does for a standalone Python.
    "    _sync = staticmethod(TclMod.eval)\n"
    "    def flush(self):                 \n"
    "        self._sync(self._flush)      \n"
    "sys.stdout = _Channel(tcl.stdout, 'stdout')\n"
    "sys.stderr = _Channel(tcl.stderr, 'stderr')\n"
    "del _Channel\n"
    "tcl.__swap = None\n"
    "from Orvanta import *\n"
    "import builtins\n"
    "setattr(builtins, 'tcl', tcl)\n"
    "setattr(builtins, 'TclError', TclError)\n"
    "import OrvaShell\n";

// Relative to the working directory at start-up; the bootstrap makes all but
// "." absolute. The final empty entry stands for that directory itself.
const wchar_t* const search_path[] = {L"python/lib", L"python/", L"python/bin/linux64",
                                      L"python/lib/site-packages", L""};

bool startInterpreter() {
    PyImport_AppendInittab("TclMod", PyInit_TclMod);
    PyImport_AppendInittab("Orvanta", PyInit_Orvanta);
    PyImport_AppendInittab("_pytarn", PyInit__pytarn);
    PyImport_AppendInittab("_pytarn_streams", streams::initModule);
    environment::registerModule();

    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    // A library inside someone else's process: no environment, no command
    // line, no signal handlers, no changes to the C streams.
    config.parse_argv = 0;
    config.use_environment = 0;
    config.install_signal_handlers = 0;
    config.configure_c_stdio = 0;
    config.pathconfig_warnings = 0;
    config.user_site_directory = 0;
    config.write_bytecode = 0;
    config.site_import = 0;
    // The program name is kept as written, whatever the Python's version.
    PyStatus status = PyConfig_SetString(&config, &config.program_name, L"python35");
    if (!PyStatus_Exception(status))
        status = PyConfig_SetString(&config, &config.home, L"python");
    config.module_search_paths_set = 1;
    // Absolute already here, not only in sys.path: a subinterpreter starts from this
    // configuration, perhaps after the working directory has changed.
    std::error_code cwd_error;
    const std::filesystem::path root = std::filesystem::current_path(cwd_error);
    const std::wstring cwd = root.wstring() + L"/";
    for (const wchar_t* entry : search_path) {
        std::wstring path = cwd_error ? std::wstring(entry) : cwd + entry;
        if (!PyStatus_Exception(status))
            status = PyWideStringList_Append(&config.module_search_paths, path.c_str());
    }
    if (!cwd_error && !PyStatus_Exception(status)) status = describeInstallation(&config, root);
    if (!PyStatus_Exception(status)) status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) {
        std::cerr << "Python start-up failed: " << (status.err_msg ? status.err_msg : "")
                  << "\n";
        return false;
    }
    return true;
}

// A new reference to main_dict[name], or null; raises nothing.
PyObject* mainEntry(const char* name) {
    PyObject* dict = python_state.main_dict.get();
    if (!dict || !PyDict_Check(dict)) return nullptr;
    PyObject* entry = PyDict_GetItemString(dict, name);
    Py_XINCREF(entry);
    return entry;
}

} // namespace

int init() {
    if (!startInterpreter()) return 1;
    settlePrefixes();
    SmartPyObj main = SmartPyObj::borrow(PyImport_AddModule("__main__"));
    python_state.main_dict = main ? PyObject_GetAttrString(main.get(), "__dict__") : nullptr;
    if (python::execNoResult(bootstrap_script)) {
        printPythonError();
        return 1;
    }
    setUpEnvironment();
    python_state.tcl = mainEntry("tcl");
    python_state.tcl_error = mainEntry("TclError");
    python_state.shell = mainEntry("OrvaShell");
    if (python_state.shell && !PyErr_Occurred()) {
        PyObject* shell = python_state.shell.get();
        python_state.complete_expression = PyObject_GetAttrString(shell, "completeExpression");
        if (!PyErr_Occurred())
            python_state.tab_complete = PyObject_GetAttrString(shell, "tabComplete");
        if (!PyErr_Occurred())
            python_state.make_function = PyObject_GetAttrString(shell, "makeFunction");
    }
    // Steps after the bootstrap, which stays as hosts have always seen it.
    if (!PyErr_Occurred()) attachCallFunctions();
    // Python's environment as python3 users know it, made after the
    // bootstrap and without changing what it set up. The bridge works
    // without it, so a failure is reported and start-up goes on.
    if (!PyErr_Occurred() && !environment::install()) printPythonError();
    if (PyErr_Occurred()) {
        printPythonError();
        return 1;
    }
    return 0;
}

} // namespace pytarn
