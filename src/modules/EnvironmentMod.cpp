// The built-in module _pytarn_env. Its functions are Python code: they only
// rearrange what the standard library provides (path hooks, site's builtins
// and .pth processing), which reads best in Python itself.
#include "EnvironmentMod.h"

#include <string>
#include <unistd.h>

namespace pytarn::environment {

namespace {

const char* const module_source = R"py(
import builtins, os, sys
import _sitebuiltins


class _CurrentDirectory:
    """The finder behind the search path's entry ".". Python binds a path entry to a
    directory once, when it first meets it; this one looks in the directory that is
    current at each import, as python3 does for its entry ""."""

    def find_spec(self, fullname, target=None):
        finder = _directory_finder()
        return finder.find_spec(fullname, target) if finder is not None else None

    def iter_modules(self, prefix=''):
        finder = _directory_finder()
        if finder is None:
            return iter(())
        import pkgutil
        return pkgutil.iter_importer_modules(finder, prefix)

    def __repr__(self):
        return '<finder of the current directory>'


_current = _CurrentDirectory()


def _directory_finder():
    """The finder of the current directory, made by the other path hooks and kept
    in sys.path_importer_cache as for any absolute entry; None when there is none."""
    try:
        directory = os.getcwd()
    except OSError:
        return None
    cache = sys.path_importer_cache
    if directory in cache:
        return cache[directory]
    finder = None
    for hook in sys.path_hooks:
        if hook is _current_directory_hook:
            continue
        try:
            finder = hook(directory)
            break
        except ImportError:
            pass
    cache[directory] = finder
    return finder


def _current_directory_hook(entry):
    if entry != '.':
        raise ImportError('only the entry "." is the current directory')
    return _current


class _Quitter(_sitebuiltins.Quitter):
    """exit and quit as python3 has them, but stdin stays open: in a host the
    process goes on when Python's code ends, and so may its use of stdin."""

    def __call__(self, code=None):
        raise SystemExit(code)


def _standard_library():
    """The search path's directory of the standard library: imports find it there,
    through the installation root, while Python found its real directory from the
    installation's program."""
    for entry in sys.path:
        if isinstance(entry, str) and os.path.isabs(entry) and os.path.isfile(
                os.path.join(entry, 'os.py')):
            return entry
    return None


def _use_standard_library(directory):
    """Makes DIRECTORY sys._stdlib_dir and gives the frozen modules imported so far
    their files there, as Python's start-up gives them files in its own directory:
    frozen modules then name the files that imports from source find."""
    from importlib.machinery import FrozenImporter
    resolve = getattr(FrozenImporter, '_resolve_filename', None)
    if directory is None or resolve is None:
        return
    sys._stdlib_dir = directory
    for module in list(sys.modules.values()):
        found = getattr(module, '__spec__', None)
        state = getattr(found, 'loader_state', None)
        if found is None or found.loader is not FrozenImporter or not getattr(
                state, 'origname', None):
            continue
        locations = found.submodule_search_locations
        state.filename, package = resolve(state.origname, found.name, locations is not None)
        module.__file__ = state.filename
        if package:
            locations[:] = [package]
            module.__path__ = locations


def install():
    """The step after the bootstrap: see EnvironmentMod.h."""
    _use_standard_library(_standard_library())
    sys.path_hooks.insert(0, _current_directory_hook)
    # The start-up's own imports bound "." to the directory current then.
    sys.path_importer_cache.pop('.', None)
    import site  # without its main(): the start-up has no_site set
    site.setcopyright()
    site.sethelper()
    builtins.exit = _Quitter('exit', 'Ctrl-D (i.e. EOF)')
    builtins.quit = _Quitter('quit', 'Ctrl-D (i.e. EOF)')


def _is_site_packages(entry):
    return isinstance(entry, str) and os.path.basename(entry.rstrip('/')) in (
        'site-packages', 'dist-packages')


_environments_used = set()


def _made_by(prefix):
    """The Python that made the environment PREFIX, as its pyvenv.cfg names it; None
    when the file does not say."""
    try:
        with open(os.path.join(prefix, 'pyvenv.cfg'), encoding='utf-8') as config:
            settings = dict(line.split('=', 1) for line in config if '=' in line)
    except (OSError, ValueError):
        return None
    settings = {key.strip(): value.strip() for key, value in settings.items()}
    if settings.get('executable'):
        return settings['executable']
    if settings.get('home'):
        return os.path.join(settings['home'], 'python%d.%d' % sys.version_info[:2])
    return None


def use_virtual_env(prefix):
    """Puts the packages of the virtual environment PREFIX ahead of the system's: its
    site-packages and what its .pth files add go before the first site-packages on
    sys.path, as site.addsitedir processes them. True when used."""
    prefix = os.path.abspath(prefix)
    if prefix in _environments_used:  # the package entry may run again
        return True
    version = 'python%d.%d' % sys.version_info[:2]
    packages = os.path.join(prefix, sys.platlibdir, version, 'site-packages')
    if not os.path.isdir(packages):
        sys.stderr.write('pytarn: the virtual environment %s has no %s packages (%s); '
                         'it is not used\n' % (prefix, version, packages))
        return False
    # Its compiled packages were built for the Python that made it.
    maker = _made_by(prefix)
    own = os.path.realpath(sys._base_executable)
    if maker and os.path.realpath(maker) != own:
        sys.stderr.write('pytarn: the virtual environment %s was made by %s, not by the '
                         "bridge's Python; its compiled packages may fail to import (make "
                         'it with %s -m venv)\n' % (prefix, maker, own))
    import site
    before = set(sys.path)
    site.addsitedir(packages)
    added = [entry for entry in sys.path if entry not in before]
    kept = [entry for entry in sys.path if entry in before]
    at = next((i for i, entry in enumerate(kept) if _is_site_packages(entry)), len(kept))
    sys.path[:] = kept[:at] + added + kept[at:]
    _environments_used.add(prefix)
    sys.prefix = sys.exec_prefix = prefix
    return True  # the caller then makes the environment's program sys.executable
)py";

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "_pytarn_env",
    "Python's environment in the pytarn bridge: imports from the current directory, "
    "the interactive builtins and virtual environments.",
    0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

PyObject* createModule() {
    SmartPyObj module(PyModule_Create(&module_def));
    if (!module) return nullptr;
    PyObject* dict = PyModule_GetDict(module.get()); // borrowed
    if (PyDict_SetItemString(dict, "__builtins__", PyEval_GetBuiltins()) != 0) return nullptr;
    // Named in tracebacks as a module's file would be.
    SmartPyObj code(Py_CompileString(module_source, "<_pytarn_env>", Py_file_input));
    SmartPyObj result(code ? PyEval_EvalCode(code.get(), dict, dict) : nullptr);
    return result ? module.release() : nullptr;
}

// Calls the module's function NAME with ARGUMENT (none when null).
PyObject* call(const char* name, PyObject* argument) {
    SmartPyObj module(PyImport_ImportModule(module_def.m_name));
    if (!module) return nullptr;
    SmartPyObj function(PyObject_GetAttrString(module.get(), name));
    if (!function) return nullptr;
    return argument ? PyObject_CallOneArg(function.get(), argument)
                    : PyObject_CallNoArgs(function.get());
}

} // namespace

void registerModule() { PyImport_AppendInittab(module_def.m_name, createModule); }

bool install() {
    SmartPyObj result(call("install", nullptr));
    return static_cast<bool>(result);
}

std::filesystem::path findProgram(const std::filesystem::path& prefix) {
    const std::string version =
        "python" + std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);
    for (const std::string& name : {version, std::string("python3"), std::string("python")}) {
        const std::filesystem::path program = prefix / "bin" / name;
        if (access(program.c_str(), X_OK) == 0) return program;
    }
    return {};
}

PyObject* useVirtualEnv(const char* dir) {
    SmartPyObj path(PyUnicode_DecodeFSDefault(dir));
    if (!path) return nullptr;
    SmartPyObj used(call("use_virtual_env", path.get()));
    if (used.get() != Py_True) return used.release();
    // The environment is sys.prefix now, made absolute.
    PyObject* prefix = PySys_GetObject("prefix"); // borrowed
    SmartPyObj prefixBytes(prefix ? PyUnicode_EncodeFSDefault(prefix) : nullptr);
    if (!prefixBytes) return nullptr;
    const std::filesystem::path program = findProgram(PyBytes_AS_STRING(prefixBytes.get()));
    if (program.empty()) return used.release();
    SmartPyObj executable(PyUnicode_DecodeFSDefault(program.c_str()));
    if (!executable || PySys_SetObject("executable", executable.get()) != 0) return nullptr;
    return used.release();
}

} // namespace pytarn::environment
