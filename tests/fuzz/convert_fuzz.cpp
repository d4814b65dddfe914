// libFuzzer target: Tcl text converted to Python as it is, and as the list and dict Tcl
// parses from it, and back; the number recognisers against a model of their rules.
#include "TestEnv.h"

#include "convert/TclConvert.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace pytarn;
using namespace tcl_convert;

#define REQUIRE(property) \
    ((property) ? void() : (std::fprintf(stderr, "broken: %s\n", #property), std::abort()))

namespace {

// The recognisers' rules, spelled out differently from the code under test.
bool modelOctal(const std::string& t) {
    return t[0] == '0' && t.find_first_not_of("01234567") == std::string::npos &&
           t.find_first_of("1234567") != std::string::npos;
}
bool modelFloat(const std::string& t) {
    return t.find_first_not_of("0123456789.") == std::string::npos && t.size() > 1 &&
           t.find('.') != std::string::npos && t.find('.') == t.rfind('.');
}

// Text becomes an int, a float or a str, Tcl's octal an int; only text that Python cannot
// read (NUL, bad UTF-8) fails, and raises nothing (digits past Python's limit on int()
// become a str). A str comes back unchanged from Tcl's form of it.
void checkText(const std::string& text, Tcl_Obj* value) {
    SmartPyObj obj = fromTcl(value);
    REQUIRE(!PyErr_Occurred());
    const bool isStr = obj && PyUnicode_CheckExact(obj.get());
    REQUIRE(!obj || isStr || PyLong_CheckExact(obj.get()) || PyFloat_CheckExact(obj.get()));
    REQUIRE(!modelOctal(text) || PyLong_CheckExact(obj.get()));
    if (!isStr) return;
    SmartTclObj back(toTcl(obj));
    const char* backText = Tcl_GetString(back.get());
    SmartPyObj again = fromTclText(backText, back.get()->length);
    REQUIRE(!PyErr_Occurred() && again && PyUnicode_Compare(again.get(), obj.get()) == 0);
}

// Tcl's list (or dict) parse of the text, and each list element's, converts with no
// more items than Tcl holds, and every item comes back.
void checkContainer(Tcl_Obj* value, bool asDict) {
    int count = 0, size = -1;
    Tcl_Obj** elements = nullptr;
    if ((asDict ? Tcl_DictObjSize(nullptr, value, &count)
                : Tcl_ListObjGetElements(nullptr, value, &count, &elements)) != TCL_OK)
        return;
    for (int i = 0; !asDict && i < count; ++i) Tcl_ListObjLength(nullptr, elements[i], &size);
    if (!value->typePtr) return; // Tcl leaves the empty string without an internal form
    SmartPyObj converted = fromTcl(value);
    REQUIRE(converted && !PyErr_Occurred());
    REQUIRE(asDict ? PyDict_CheckExact(converted.get()) : PyList_CheckExact(converted.get()));
    REQUIRE(PyObject_Size(converted.get()) <= count);
    SmartTclObj back(toTcl(converted));
    asDict ? Tcl_DictObjSize(nullptr, back.get(), &size)
           : Tcl_ListObjLength(nullptr, back.get(), &size);
    REQUIRE(!PyErr_Occurred() && size == PyObject_Size(converted.get()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Tcl_FindExecutable(nullptr);
    if (!pytarn_test::initTclStubs(Tcl_CreateInterp())) std::abort();
    // Python's objects on the C heap, where the sanitizers see them; nothing from the
    // environment or site.
    PyPreConfig preconfig;
    PyPreConfig_InitIsolatedConfig(&preconfig);
    preconfig.allocator = PYMEM_ALLOCATOR_MALLOC;
    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.site_import = 0;
    if (PyStatus_Exception(Py_PreInitialize(&preconfig)) ||
        PyStatus_Exception(Py_InitializeFromConfig(&config)))
        std::abort();
    PyConfig_Clear(&config);
    // Failed list items are printed; the fuzzer's output needs none of it.
    return PyRun_SimpleString("import sys, os\nsys.stderr = open(os.devnull, 'w')");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string cText = text.substr(0, text.find('\0'));
    REQUIRE(isTclOctal(cText.c_str()) == modelOctal(cText));
    REQUIRE(isTclFloat(cText.c_str()) == modelFloat(cText));
    for (int as = 0; as < 3; ++as) {
        SmartTclObj value(Tcl_NewStringObj(text.data(), static_cast<int>(size)));
        as ? checkContainer(value.get(), as == 2) : checkText(text, value.get());
    }
    return 0;
}
