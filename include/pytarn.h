/* Exported C entry points of the pytarn bridge library.
 *
 * Every entry is called by the host on its main Tcl thread (the thread that
 * calls `load` or `Pytarn_Init`), except Pytarn_Interrupt (any thread) and the
 * two module initialisers, which the embedded Python's import machinery calls
 * on the Python thread. */
#ifndef PYTARN_H
#define PYTARN_H

#ifdef __cplusplus
extern "C" {
#endif

struct Tcl_Interp;
struct _object; /* PyObject */

#if defined(__GNUC__)
#define PYTARN_EXPORT __attribute__((visibility("default")))
#else
#define PYTARN_EXPORT
#endif

/* Starts the Python thread and initialises the interpreter on it; returns 0
 * when the ::python:: commands exist in `interp`, 1 when start-up failed.
 * Blocks until start-up has finished, carrying out Python's Tcl requests
 * meanwhile. The Python installation is looked up under `python/` relative to
 * the working directory. A second call returns the first call's status. */
PYTARN_EXPORT int load(struct Tcl_Interp* interp);

/* The Tcl package entry point: `package require pytarn` (through the
 * generated pkgIndex.tcl) or `load libpytarn.so Pytarn`. Calls `load` once,
 * with the library's own directory as the installation root and working
 * directory for the call, then provides the package; TCL_ERROR with a message
 * when Python did not start or another interpreter already has the bridge. */
PYTARN_EXPORT int Pytarn_Init(struct Tcl_Interp* interp);

/* Makes the packages of the virtual environment that $VIRTUAL_ENV names (an
 * activated environment) importable ahead of the system's, .pth files
 * included, and makes that environment sys.prefix and its Python
 * sys.executable, as python3 from the environment has them. Does nothing when
 * VIRTUAL_ENV is unset or empty; an environment without packages for this
 * Python version is reported on Python's stderr and left alone. Call after a
 * successful `load` with the same interpreter; `Pytarn_Init` and pytarnsh do.
 * Returns TCL_OK, or TCL_ERROR with the message in the interpreter's result. */
PYTARN_EXPORT int Pytarn_UseVirtualEnv(struct Tcl_Interp* interp);

/* Asks the helper module's makeFunction(first, second) to create a function.
 * Returns the Tcl completion code and leaves the result in the interpreter
 * given to `load`. `second` may be null (passed on as ""). `first` is the
 * command's name and `second` its expression; the names are kept as written. */
PYTARN_EXPORT int createFunction(const char* first, const char* second);

/* Interrupts the Python request that is running now, if any: the innermost
 * call into Python that the main Tcl thread waits for gets KeyboardInterrupt,
 * on whichever Python thread runs it; a time.sleep or a blocking read of
 * Python's main thread ends at once. Uncaught, it fails the Tcl command with
 * the error code {PYTHON KeyboardInterrupt}. Returns 1 when a request was
 * running (it is interrupted shortly after the call returns), 0 when none
 * was and nothing happens: the caller's own handling then applies (pytarnsh
 * ends as tclsh does on Ctrl-C). For hosts with their own Ctrl-C or Cancel
 * handling: it may be called from any thread, and is async-signal-safe, so a
 * SIGINT handler may call it. The library installs no SIGINT handler. The
 * first interrupt installs a do-nothing handler for SIGRTMAX-3, unless the
 * process already handles that signal, to wake blocked system calls. */
PYTARN_EXPORT int Pytarn_Interrupt(void);

/* Built-in module initialisers registered with the embedded interpreter. */
PYTARN_EXPORT struct _object* PyInit_TclMod(void);
PYTARN_EXPORT struct _object* PyInit_Orvanta(void);

#ifdef __cplusplus
}
#endif

#endif
