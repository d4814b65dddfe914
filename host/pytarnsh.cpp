// pytarnsh: tclsh with the pytarn bridge loaded before the script or the prompt runs.
// The outcome of `load` (0 loaded, 1 failed) is left in ::pytarn::status.
#include <tcl.h>

#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "HostCommands.h"
#include "PythonEnvironment.h"
#include "pytarn.h"

namespace {

namespace fs = std::filesystem;

bool holdsShell(const fs::path& dir) {
    std::error_code ec;
    return fs::is_regular_file(dir / "OrvaShell.py", ec);
}

// The installation root holds python/ and OrvaShell.py. In order: $PYTARN_HOME when set
// and not empty; the executable's directory (a build tree); <exe dir>/../lib/pytarn (an
// installed prefix); the build directory that this executable was compiled in.
fs::path installationRoot() {
    if (const char* home = std::getenv("PYTARN_HOME"); home && *home)
        return home;
    std::error_code ec;
    fs::path exeDir = fs::read_symlink("/proc/self/exe", ec).parent_path();
    if (!ec) {
        if (holdsShell(exeDir))
            return exeDir;
        if (fs::path lib = (exeDir / "../lib/pytarn").lexically_normal(); holdsShell(lib))
            return lib;
    }
    return PYTARN_DEFAULT_ROOT;
}

// The library finds Python relative to the working directory, so it starts inside the root;
// the script then runs where the user started it.
int loadInRoot(Tcl_Interp* interp) {
    Tcl_Obj* callerDir = Tcl_FSGetCwd(interp);
    Tcl_Obj* root = Tcl_NewStringObj(installationRoot().c_str(), -1);
    Tcl_IncrRefCount(root);
    if (Tcl_FSChdir(root) != 0)
        std::fprintf(stderr, "pytarnsh: cannot enter installation root \"%s\": %s\n",
                     Tcl_GetString(root), std::strerror(errno));
    Tcl_DecrRefCount(root);
    const int status = load(interp);
    if (callerDir) {
        Tcl_FSChdir(callerDir);
        Tcl_DecrRefCount(callerDir);
    }
    return status;
}

// Ctrl-C interrupts the Python request that runs; with none running it ends the
// shell as it ends tclsh.
void onInterrupt(int) {
    if (Pytarn_Interrupt()) return;
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
}

// A shell that started the program with SIGINT ignored (a background job, nohup)
// meant it to stay ignored, as it does in tclsh and python3.
void handleInterrupts() {
    struct sigaction inherited {};
    if (sigaction(SIGINT, nullptr, &inherited) != 0 ||
        (!(inherited.sa_flags & SA_SIGINFO) && inherited.sa_handler == SIG_IGN))
        return;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
}

// At the interactive prompt Tcl waits in its event loop instead of a blocking read, so
// output and requests from Python threads are carried out while the user types.
void eventLoop() {
    for (;;)
        Tcl_DoOneEvent(0);
}

int appInit(Tcl_Interp* interp) {
    if (Tcl_Init(interp) != TCL_OK)
        return TCL_ERROR;
    Tcl_CreateNamespace(interp, "::pytarn", nullptr, nullptr);
    Tcl_CreateNamespace(interp, "::pytarnsh", nullptr, nullptr);
    pytarnsh::registerFunctionCommand(interp);
    pytarnsh::registerConsoleCommand(interp);
#ifndef PYTARNSH_NO_BUFFERS
    pytarnsh::registerBufferCommands(interp);
#endif
    const int status = loadInRoot(interp);
    Tcl_SetVar2Ex(interp, "::pytarn::status", nullptr, Tcl_NewIntObj(status), TCL_GLOBAL_ONLY);
    if (status == 0) {
        pytarnsh::preparePython(interp);
        // Scripts written for tclsh's `package require pytarn` run here unchanged.
        Tcl_PkgProvide(interp, "pytarn", PYTARN_VERSION);
        handleInterrupts();
    }
    int interactive = 0;
    Tcl_Obj* flag = Tcl_GetVar2Ex(interp, "tcl_interactive", nullptr, TCL_GLOBAL_ONLY);
    if (flag && Tcl_GetBooleanFromObj(nullptr, flag, &interactive) == TCL_OK && interactive)
        Tcl_SetMainLoop(eventLoop);
    return TCL_OK;
}

} // namespace

int main(int argc, char** argv) {
    Tcl_Main(argc, argv, appInit);
    return 0;
}
