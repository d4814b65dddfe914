// The conversions and handles at the C level: reference counts, and the forms that Tcl
// scripts cannot build or see (malformed UTF-8, raw NUL, pure integers, shared objects).
#include "TestEnv.h"

#include "convert/TclConvert.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

using namespace pytarn;
using namespace pytarn_test;
using namespace tcl_convert;

namespace {

Tcl_Obj* str(const std::string& text) {
    return Tcl_NewStringObj(text.data(), static_cast<int>(text.size()));
}
Tcl_Obj* list(std::initializer_list<Tcl_Obj*> items) {
    return Tcl_NewListObj(static_cast<int>(items.size()), items.begin());
}
std::string repr(const SmartPyObj& obj) {
    return obj ? SmartPyObj(PyObject_Repr(obj.get())).stdstr() : "<" + pendingError() + ">";
}
// The repr of a fresh Tcl value's conversion ("<Error>" for a failure, then cleared), which
// its detached copy shares; neither changes the value's count or text. The value is freed.
std::string python(Tcl_Obj* value) {
    const bool noText = !value->bytes;
    SmartTclObj owner(value), copy(detachedCopy(value));
    const int refs = value->refCount;
    std::string out = repr(fromTcl(value));
    PyErr_Clear();
    const std::string copied = repr(fromTcl(copy.get()));
    PyErr_Clear();
    EXPECT_EQ(copied, out);
    EXPECT_EQ(value->refCount, refs);
    EXPECT_EQ(!value->bytes, noText);
    EXPECT_EQ(!copy.get()->bytes, noText);
    return out;
}

} // namespace

TEST(Handles, CountEachReferenceOnceAndReleaseTheOldValueLast) {
    PyObject* raw = PyList_New(0);
    Py_INCREF(raw); // the test's own, to watch the count
    {
        SmartPyObj adopted(raw), borrowed = SmartPyObj::borrow(raw), copy(adopted);
        SmartPyObj moved(std::move(copy));
        copy = moved;
        EXPECT_EQ(Py_REFCNT(raw), 5);
    }
    EXPECT_EQ(Py_REFCNT(raw), 1);
    Py_DECREF(raw);
    // A release may run __del__, which must find the handle holding its new value.
    static SmartPyObj* watched = nullptr;
    static PyObject* held = nullptr;
    static PyMethodDef record{"record", [](PyObject*, PyObject*) -> PyObject* {
        held = watched->get();
        Py_RETURN_NONE;
    }, METH_NOARGS, nullptr};
    SmartPyObj recorder(PyCFunction_New(&record, nullptr));
    SmartPyObj handle(PyObject_CallOneArg(
        py("lambda f: type('D', (), {'__del__': lambda s: f()})()").get(), recorder.get()));
    watched = &handle;
    handle = py("'new'");
    EXPECT_EQ(held, handle.get());
    // A Tcl handle takes its own reference and gives it back, whatever it is given.
    Tcl_Obj* obj = Tcl_NewObj();
    Tcl_IncrRefCount(obj);
    {
        SmartTclObj tclHandle(obj);
        tclHandle = tclHandle.get();
        EXPECT_EQ(obj->refCount, 2);
        tclHandle = Tcl_NewObj();
        EXPECT_EQ(obj->refCount, 1);
        tclHandle = obj;
    }
    EXPECT_EQ(obj->refCount, 1);
    Tcl_DecrRefCount(obj);
    // stdstr is empty, with the error left, when str() raises.
    EXPECT_EQ(py("type('B', (), {'__str__': lambda s: 1/0})()").stdstr(), "");
    EXPECT_EQ(pendingError(), "ZeroDivisionError");
    PyErr_Clear();
}

// Each path, with the converted value's own count back where it was.
TEST(Convert, PythonValuesBecomeTclTextAndKeepTheirCounts) {
    const std::pair<const char*, const char*> cases[] = {
        {"[1, 'a b', type('T', (tuple,), {})((2, [])), type('D', (dict,), {})(k=[1])]",
         "1 {a b} {2 {}} {k 1}"},
        {"[2**100, -2**63, 'h\\U0001F600']",
         "1267650600228229401496703205376 -9223372036854775808 h\xED\xA0\xBD\xED\xB8\x80"},
        // The first failed item's error survives the items after it.
        {"[type('B', (), {'__str__': lambda s: 1/0})(), 'fine']", "<ZeroDivisionError>"},
        {"(lambda l: l.append(l) or l)([])", "<RecursionError>"},
        {"(lambda d: d.update(k=d) or d)({})", "<RecursionError>"}};
    for (auto [expression, expected] : cases) {
        SmartPyObj value = py(expression);
        const Py_ssize_t refs = Py_REFCNT(value.get());
        SmartTclObj converted(toTcl(value));
        EXPECT_EQ(PyErr_Occurred() ? "<" + pendingError() + ">" : Tcl_GetString(converted.get()),
                  expected) << expression;
        PyErr_Clear();
        EXPECT_EQ(Py_REFCNT(value.get()), refs) << expression;
    }
}

TEST(Convert, TclValuesThatNoScriptBuildsOrSees) {
    const std::string digits(5000, '7');
    Tcl_Obj* octal = str("-017"); // an integer to Tcl (-15), but its text decides here
    Tcl_WideInt number = 0;
    ASSERT_EQ(Tcl_GetWideIntFromObj(nullptr, octal, &number), TCL_OK);
    ASSERT_EQ(PyRun_SimpleString("import io, sys\nsys.stderr = io.StringIO()"), 0);
    const struct {
        const char* name;
        Tcl_Obj* value;
        std::string expected;
    } cases[] = {
        // Malformed forms, which only an object built in C holds (Tcl's own NUL is 0xC0 0x80).
        {"lone low surrogate", str("a\xED\xB8\x80"), "<>"},
        {"surrogates in the wrong order", str("\xED\xB8\x80\xED\xA0\xBD"), "<>"},
        {"sequence cut short", str("\xE2\x82"), "<>"},
        {"raw NUL", str(std::string("a\0b", 3)), "<>"},
        {"surrogate pair", str("\xED\xA0\xBD\xED\xB8\x80"), "'\xF0\x9F\x98\x80'"},
        {"digits past the limit", str(" -" + digits + " "), "' -" + digits + " '"},
        {"underscores and blanks", str(" -1_000 "), "-1000"},
        {"octal with a blank", str("017 "), "'017 '"},
        {"float with leading zeros", str("007.10"), "7.1"},
        // Integers without text convert as their digits would.
        {"pure zero", Tcl_NewWideIntObj(0), "0"},
        {"pure negative", Tcl_NewWideIntObj(-15), "-15"},
        {"pure minimum", Tcl_NewWideIntObj(INT64_MIN), "-9223372036854775808"},
        {"octal text with an integer", octal, "'-017'"},
        // A failed item is printed and ends its list, but not the lists around it.
        {"failed item", list({str("a"), str("\xC0\x80"), str("c")}), "['a']"},
        {"failed inner item", list({list({str("1"), str("\xC0\x80")}), str("2")}), "[[1], 2]"}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(python(row.value), row.expected);
    }
    EXPECT_NE(py("sys.stderr.getvalue()").stdstr().find("ValueError"), std::string::npos);
}

// Any object the copy shared with the original would count one more reference.
TEST(DetachedCopy, SharesNoObjectAndFailsOnlyBeyondTheDepthLimitAsConversionDoes) {
    Tcl_Obj *shared = str("s"), *seven = Tcl_NewIntObj(7), *inner = list({shared, seven});
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, str("k"), inner);
    SmartTclObj original(list({shared, inner, dict}));
    auto counts = [&] {
        return std::vector<int>{shared->refCount, seven->refCount, inner->refCount, dict->refCount};
    };
    const std::vector<int> before = counts();
    SmartTclObj copy(detachedCopy(original.get()));
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(repr(fromTcl(copy.get())), "['s', ['s', 7], {'k': ['s', 7]}]");
    Tcl_Obj* deep = str("x");
    for (int i = 0; i < max_depth; ++i) deep = list({deep});
    SmartTclObj atLimit(deep), beyond(list({deep}));
    const SmartTclObj copyAtLimit(detachedCopy(atLimit.get()));
    EXPECT_TRUE(copyAtLimit);
    EXPECT_TRUE(fromTcl(atLimit.get()));
    EXPECT_EQ(detachedCopy(beyond.get()), nullptr);
    EXPECT_EQ(repr(fromTcl(beyond.get())), "<RecursionError>");
    PyErr_Clear();
}
