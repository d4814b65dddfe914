// libFuzzer target: Tcl text converted to Python as it is, and as the list and the dict
// that Tcl parses from it; the number recognisers against a model of their rules. A
// broken property aborts, which the fuzzer reports with the input.
#include "TestEnv.h"

#include "convert/TclConvert.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

using pytarn::SmartPyObj;
using pytarn::SmartTclObj;

namespace {

void require(bool holds, const char* property) {
    if (holds) return;
    std::fprintf(stderr, "property broken: %s\n", property);
    std::abort();
}

// The recognisers' rules, spelled out differently from the code under test.
bool modelOctal(const std::string& t) {
    return !t.empty() && t[0] == '0' && t.find_first_not_of("01234567") == std::string::npos &&
           t.find_first_of("1234567") != std::string::npos;
}
bool modelFloat(const std::string& t) {
    return t.find_first_not_of("0123456789.") == std::string::npos &&
           std::count(t.begin(), t.end(), '.') == 1 && t.size() > 1;
}

void checkText(const std::string& text) {
    SmartTclObj value(Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
    SmartPyObj obj = tcl_convert::fromTcl(value.get());
    if (!obj) {
        // Only text Python cannot read (NUL, bad UTF-8), and it raises nothing:
        // even digits past Python's limit on int() become a str.
        require(!PyErr_Occurred(), "text that does not convert leaves no error");
        return;
    }
    require(!PyErr_Occurred(), "a converted value leaves no error");
    require(PyLong_CheckExact(obj.get()) || PyFloat_CheckExact(obj.get()) ||
                PyUnicode_CheckExact(obj.get()), "text becomes an int, a float or a str");
    if (text.find('\0') == std::string::npos && modelOctal(text))
        require(PyLong_CheckExact(obj.get()), "Tcl's octal becomes an int");
    if (!PyUnicode_CheckExact(obj.get())) return;
    // A str must come back unchanged from Tcl's form of it.
    SmartTclObj back(tcl_convert::toTcl(obj));
    require(!PyErr_Occurred(), "a converted str converts back to Tcl");
    int length = 0;
    const char* backText = Tcl_GetStringFromObj(back.get(), &length);
    SmartPyObj again = tcl_convert::fromTclText(backText, length);
    require(again && PyUnicode_Compare(again.get(), obj.get()) == 0, "a str survives Tcl's form");
}

// Converts Tcl's list (or dict) parse of the text, and the result back again.
void checkContainer(const std::string& text, bool asDict) {
    SmartTclObj value(Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
    int count = 0;
    Tcl_Obj** elements = nullptr;
    if ((asDict ? Tcl_DictObjSize(nullptr, value.get(), &count)
                : Tcl_ListObjGetElements(nullptr, value.get(), &count, &elements)) != TCL_OK)
        return;
    for (int i = 0, inner = 0; !asDict && i < count; ++i)
        Tcl_ListObjLength(nullptr, elements[i], &inner); // elements parsed as lists too
    const Tcl_ObjType* type = value.get()->typePtr;
    if (!type) return; // Tcl leaves the empty string without an internal form
    SmartPyObj converted = tcl_convert::fromTcl(value.get());
    require(converted && !PyErr_Occurred(), "a parsed value converts, failed items printed");
    require(type == Tcl_GetObjType(asDict ? "dict" : "list") &&
                (asDict ? PyDict_CheckExact(converted.get()) : PyList_CheckExact(converted.get())),
            "the internal form decides the type");
    const Py_ssize_t size = PyObject_Size(converted.get());
    require(size <= count, "no more items than Tcl holds");
    SmartTclObj back(tcl_convert::toTcl(converted));
    require(!PyErr_Occurred(), "a converted container converts back");
    int backCount = 0;
    if (asDict) Tcl_DictObjSize(nullptr, back.get(), &backCount);
    else Tcl_ListObjLength(nullptr, back.get(), &backCount);
    require(backCount == size, "every item comes back");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Tcl_FindExecutable(nullptr);
    if (!pytarn_test::initTclStubs(Tcl_CreateInterp())) std::abort();
    // Python's objects on the C heap, where the sanitizers see them.
    PyPreConfig preconfig;
    PyPreConfig_InitIsolatedConfig(&preconfig);
    preconfig.allocator = PYMEM_ALLOCATOR_MALLOC;
    if (PyStatus_Exception(Py_PreInitialize(&preconfig))) std::abort();
    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.site_import = 0;
    config.install_signal_handlers = 0;
    PyStatus status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) std::abort();
    // Failed list items are printed; the fuzzer's output needs none of it.
    SmartPyObj quiet(PyRun_String("import sys, os\nsys.stderr = open(os.devnull, 'w')\n",
                                  Py_file_input, PyEval_GetBuiltins(), nullptr));
    return quiet ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string cText = text.substr(0, text.find('\0'));
    require(isTclOctal(cText.c_str()) == modelOctal(cText), "isTclOctal follows its rules");
    require(isTclFloat(cText.c_str()) == modelFloat(cText), "isTclFloat follows its rules");
    checkText(text);
    checkContainer(text, false);
    checkContainer(text, true);
    return 0;
}
