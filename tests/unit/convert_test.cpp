// The conversions and handles at the C level: reference counts, text forms that Tcl
// scripts cannot build (malformed UTF-8, raw NUL, pure integers), and copies.
#include "TestEnv.h"

#include "convert/TclConvert.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

using pytarn::SmartPyObj;
using pytarn::SmartTclObj;
using pytarn_test::pendingError;
using pytarn_test::py;
using namespace tcl_convert;

namespace {

std::string text(Tcl_Obj* obj) { return Tcl_GetString(obj); }
std::string repr(const SmartPyObj& obj) {
    return obj ? SmartPyObj(PyObject_Repr(obj.get())).stdstr() : "<" + pendingError() + ">";
}
// Converts a fresh Tcl value and frees it; "<Error>" for a failure, which is cleared.
std::string python(Tcl_Obj* value) {
    SmartTclObj owner(value);
    const int refs = value->refCount;
    std::string out = repr(fromTcl(value));
    EXPECT_EQ(value->refCount, refs) << out;
    PyErr_Clear();
    return out;
}
std::string python(const std::string& text) {
    return python(Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
}
// The Tcl text of a Python expression's value, or "<Error>"; the value's own count
// must come back to what it was.
std::string tcl(const std::string& expression) {
    SmartPyObj value = py(expression.c_str());
    const Py_ssize_t refs = Py_REFCNT(value.get());
    SmartTclObj converted(toTcl(value));
    std::string out = PyErr_Occurred() ? "<" + pendingError() + ">" : text(converted.get());
    PyErr_Clear();
    EXPECT_EQ(Py_REFCNT(value.get()), refs) << expression;
    return out;
}
Tcl_Obj* nested(int levels) {
    Tcl_Obj* value = Tcl_NewStringObj("x", -1);
    for (int i = 0; i < levels; ++i) value = Tcl_NewListObj(1, &value);
    return value;
}

// The object's shape: [..] a list, {k:v ..} a dict, s a plain string, o any other type.
std::string shape(Tcl_Obj* obj, std::set<Tcl_Obj*>& seen) {
    seen.insert(obj);
    int count = 0;
    Tcl_Obj** elements = nullptr;
    if (obj->typePtr == Tcl_GetObjType("list")) {
        Tcl_ListObjGetElements(nullptr, obj, &count, &elements);
        std::string out = "[";
        for (int i = 0; i < count; ++i) out += shape(elements[i], seen);
        return out + "]";
    }
    if (obj->typePtr == Tcl_GetObjType("dict")) {
        Tcl_DictSearch search;
        Tcl_Obj *key, *value;
        std::string out = "{";
        for (Tcl_DictObjFirst(nullptr, obj, &search, &key, &value, &count); !count;
             Tcl_DictObjNext(&search, &key, &value, &count))
            out += shape(key, seen) + ":" + shape(value, seen);
        return out + "}";
    }
    return obj->typePtr ? "o" : "s";
}

// Records what a handle holds while one of its old values is being released.
SmartPyObj* watched = nullptr;
PyObject* heldDuringRelease = nullptr;
PyObject* recordHeld(PyObject*, PyObject*) {
    heldDuringRelease = watched->get();
    Py_RETURN_NONE;
}
PyMethodDef recordHeldDef{"recordHeld", recordHeld, METH_NOARGS, nullptr};

bool probeFreed = false;
const Tcl_ObjType probeType{"probe", [](Tcl_Obj*) { probeFreed = true; }, nullptr, nullptr,
                            nullptr};
Tcl_Obj* newProbe() {
    probeFreed = false;
    Tcl_Obj* obj = Tcl_NewObj();
    obj->typePtr = &probeType;
    return obj;
}

} // namespace

TEST(Handles, CountEachReferenceOnceAndReleaseTheOldValueLast) {
    PyObject* raw = PyList_New(0);
    Py_INCREF(raw); // the test's own, to watch the count
    {
        SmartPyObj adopted(raw);
        SmartPyObj borrowed = SmartPyObj::borrow(raw);
        SmartPyObj copy(adopted);
        SmartPyObj& alias = copy;
        copy = alias;
        SmartPyObj moved(std::move(copy));
        EXPECT_EQ(Py_REFCNT(raw), 4);
    }
    EXPECT_EQ(Py_REFCNT(raw), 1);
    Py_DECREF(raw);

    ASSERT_TRUE(pytarn_test::pyRun("class CallsOnDelete:\n"
                                   "    def __init__(self, f): self.f = f\n"
                                   "    def __del__(self): self.f()\n"));
    SmartPyObj record(PyCFunction_New(&recordHeldDef, nullptr));
    SmartPyObj make = py("CallsOnDelete");
    SmartPyObj handle(PyObject_CallOneArg(make.get(), record.get()));
    watched = &handle;
    SmartPyObj next = py("'next'");
    handle = next;
    EXPECT_EQ(heldDuringRelease, next.get());
    handle = SmartPyObj(PyObject_CallOneArg(make.get(), record.get()));
    SmartPyObj last = py("'last'");
    PyObject* lastRaw = last.get();
    handle = std::move(last);
    EXPECT_EQ(heldDuringRelease, lastRaw);
    watched = nullptr;

    {
        SmartTclObj tclHandle(newProbe());
        tclHandle = tclHandle.get();
        EXPECT_FALSE(probeFreed);
    }
    EXPECT_TRUE(probeFreed);
    SmartTclObj tclHandle(newProbe());
    tclHandle = Tcl_NewObj();
    EXPECT_TRUE(probeFreed);
    Tcl_Obj* obj = newProbe();
    Tcl_IncrRefCount(obj);
    { SmartTclObj other(obj); }
    EXPECT_EQ(obj->refCount, 1);
    Tcl_DecrRefCount(obj);
    EXPECT_TRUE(probeFreed);
    // stdstr: the str() text up to a NUL, empty with the error left when str() raises.
    EXPECT_EQ(py("'h\\u00e9\\0b'").stdstr(), "h\xC3\xA9");
    EXPECT_EQ(SmartPyObj().stdstr(), "");
    EXPECT_EQ(py("type('B', (), {'__str__': lambda s: 1/0})()").stdstr(), "");
    EXPECT_EQ(pendingError(), "ZeroDivisionError");
    PyErr_Clear();
}

TEST(TextForms, TclOctalAndFloat) {
    for (const char* yes : {"017", "0100", "0777"}) EXPECT_TRUE(isTclOctal(yes)) << yes;
    for (const char* no : {"0", "00", "17", "08", "0o17", "-017", " 017", ""})
        EXPECT_FALSE(isTclOctal(no)) << no;
    for (const char* yes : {"1.5", ".5", "5.", "007.10"}) EXPECT_TRUE(isTclFloat(yes)) << yes;
    for (const char* no : {".", "15", "1.2.3", "-1.5", "+1.5", "1e5", " 1.5", "1.5 ", ""})
        EXPECT_FALSE(isTclFloat(no)) << no;
}

TEST(Convert, PythonValuesBecomeTclText) {
    const std::string atLimit = std::to_string(max_depth), pastLimit = std::to_string(max_depth + 1);
    ASSERT_TRUE(pytarn_test::pyRun("def nest(n, leaf):\n"
                                   "    for _ in range(n): leaf = [leaf]\n"
                                   "    return leaf\n"
                                   "BadStr = type('BadStr', (), {'__str__': lambda s: 1/0})\n"));
    const std::pair<std::string, const char*> cases[] = {
        {"[1, 'a b', (2, [])]", "1 {a b} {2 {}}"},
        {"type('L', (list,), {})([1, (2, ())])", "1 {2 {}}"},
        {"{'a': 1, 'b': [1, 2], 'c': {'d': ''}}", "a 1 b {1 2} c {d {}}"},
        {"type('D', (dict,), {})(a=1)", "a 1"}, {"{1: 'x', '1': 'y'}", "1 y"},
        {"2**100", "1267650600228229401496703205376"}, {"-2**31", "-2147483648"},
        {"'a\\0b'", "a"}, {"'\\U0001F600'", "\xED\xA0\xBD\xED\xB8\x80"}, // Tcl's surrogate pair
        {"float('-inf')", "-inf"}, {"None", "None"}, {"{1}", "{1}"}, {"BadStr()", "<ZeroDivisionError>"},
        // The error survives the conversion of the items after it.
        {"[BadStr(), 'fine']", "<ZeroDivisionError>"},
        {"nest(" + atLimit + ", 'x')", nullptr}, {"nest(" + pastLimit + ", 'x')", "<RecursionError>"},
        {"nest(" + atLimit + ", {'k': 1})", "<RecursionError>"},
        {"(lambda l: l.append(l) or l)([])", "<RecursionError>"},
        {"(lambda d: d.update(k=d) or d)({})", "<RecursionError>"},
        {"nest(" + atLimit + ", 'x')", nullptr}}; // no depth left behind by a failure
    for (auto& [value, expected] : cases) {
        const std::string got = tcl(value);
        if (expected) EXPECT_EQ(got, expected) << value;
        else EXPECT_EQ(got.find('<'), std::string::npos) << value;
    }
    EXPECT_EQ(tcl("{'a': 1}"), "a 1");
    SmartTclObj dict(toTcl(py("{'a': 1}")));
    EXPECT_EQ(dict.get()->typePtr, Tcl_GetObjType("dict"));
}

TEST(Convert, TclTextBecomesIntFloatOrStr) {
    const std::string digits(5000, '7');
    const std::pair<std::string, std::string> cases[] = {
        {" 42 ", "42"}, {"-7", "-7"}, {"0x1F", "31"}, {"0", "0"}, {"017", "15"}, {"0017", "15"},
        {"08", "'08'"}, {"1.5", "1.5"}, {".5", "0.5"}, {"5.", "5.0"}, {"007.10", "7.1"},
        {"-1.5", "'-1.5'"}, {"1e3", "'1e3'"}, {"1.2.3", "'1.2.3'"}, {"", "''"}, {"a b", "'a b'"},
        {"\xF0\x9F\x98\x80", "'\xF0\x9F\x98\x80'"}, {"\xED\xA0\xBD\xED\xB8\x80", "'\xF0\x9F\x98\x80'"},
        {"123456789012345678901234567890", "123456789012345678901234567890"},
        // Not UTF-8: lone surrogate halves, a pair in the wrong order, a byte no UTF-8
        // has, a sequence cut short; NUL as Tcl holds it, and a raw one.
        {"\xED\xA0\x80", "<>"}, {"a\xED\xB8\x80", "<>"}, {"\xED\xB8\x80\xED\xA0\xBD", "<>"},
        {"\xFF", "<>"}, {"\xE2\x82", "<>"}, {"a\xC0\x80" "b", "<>"}, {std::string("a\0b", 3), "<>"},
        // Decimal past Python's digit limit is not an int: the str, as other text.
        {digits, "'" + digits + "'"}, {" -" + digits + " ", "' -" + digits + " '"},
        {"1_" + digits, "'1_" + digits + "'"},
        {digits + "x", "'" + digits + "x'"}, {"1__" + digits, "'1__" + digits + "'"},
        {digits + "_", "'" + digits + "_'"}, {" -1_000 ", "-1000"}};
    for (auto& [value, expected] : cases) EXPECT_EQ(python(value), expected) << value;
    SmartTclObj octal(Tcl_NewStringObj(("0" + digits).c_str(), -1));
    EXPECT_TRUE(PyLong_CheckExact(fromTcl(octal.get()).get()));
    const Tcl_UniChar chars[] = {'a', 0, 'b'};
    EXPECT_EQ(python(Tcl_NewUnicodeObj(chars, 3)), "<>");
}

TEST(Convert, TclContainersAndIntegersKeepTheirShape) {
    Tcl_Obj* pair[] = {Tcl_NewIntObj(1), Tcl_NewStringObj("a b", -1)};
    SmartTclObj keepFirst(pair[0]), keepSecond(pair[1]);
    Tcl_Obj* items[] = {pair[0], pair[1], Tcl_NewListObj(2, pair)};
    EXPECT_EQ(python(Tcl_NewListObj(3, items)), "[1, 'a b', [1, 'a b']]");
    EXPECT_EQ(pair[0]->refCount, 1);
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, Tcl_NewStringObj("1", -1), Tcl_NewStringObj("2", -1));
    Tcl_DictObjPut(nullptr, dict, Tcl_NewStringObj("k", -1), Tcl_NewListObj(2, pair));
    EXPECT_EQ(python(dict), "{'1': 2, 'k': [1, 'a b']}");
    // A failed item is printed and ends the list.
    ASSERT_TRUE(pytarn_test::pyRun("import io, sys\nsaved, sys.stderr = sys.stderr, io.StringIO()"));
    Tcl_Obj* bad[] = {Tcl_NewStringObj("a", -1), Tcl_NewStringObj("\xC0\x80", -1),
                      Tcl_NewStringObj("c", -1)};
    EXPECT_EQ(python(Tcl_NewListObj(3, bad)), "['a']");
    // An item's own error, not a RecursionError, ends only its list.
    Tcl_Obj* withNul[] = {Tcl_NewStringObj("1", -1), Tcl_NewStringObj("\xC0\x80", -1)};
    Tcl_Obj* outer[] = {Tcl_NewListObj(2, withNul), Tcl_NewStringObj("2", -1)};
    EXPECT_EQ(python(Tcl_NewListObj(2, outer)), "[[1], 2]");
    EXPECT_NE(py("sys.stderr.getvalue()").stdstr().find("Error"), std::string::npos);
    ASSERT_TRUE(pytarn_test::pyRun("sys.stderr = saved"));
    SmartTclObj atLimit(nested(max_depth));
    EXPECT_TRUE(fromTcl(atLimit.get()));
    EXPECT_EQ(python(nested(max_depth + 1)), "<RecursionError>");
    Tcl_Obj* deepDict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, deepDict, Tcl_NewStringObj("k", -1), nested(max_depth));
    EXPECT_EQ(python(deepDict), "<RecursionError>");

    // Integers without text convert as their digits would and get no text, copies too;
    // once an integer has text, the text decides ("-017" is -15 to Tcl, a str here).
    for (Tcl_WideInt number : {Tcl_WideInt{0}, Tcl_WideInt{-15}, Tcl_WideInt{1} << 62,
                               -(Tcl_WideInt{1} << 62) * 2}) {
        SmartTclObj value(Tcl_NewWideIntObj(number));
        SmartTclObj copy(detachedCopy(value.get()));
        EXPECT_EQ(repr(fromTcl(value.get())), std::to_string(number));
        EXPECT_EQ(repr(fromTcl(copy.get())), std::to_string(number));
        EXPECT_EQ(value.get()->bytes, nullptr);
    }
    SmartTclObj octal(Tcl_NewStringObj("-017", -1));
    Tcl_WideInt number = 0;
    ASSERT_EQ(Tcl_GetWideIntFromObj(nullptr, octal.get(), &number), TCL_OK);
    SmartTclObj copy(detachedCopy(octal.get()));
    EXPECT_EQ(repr(fromTcl(octal.get())) + repr(fromTcl(copy.get())), "'-017''-017'");
}

TEST(DetachedCopy, SharesNoObjectKeepsTheShapeAndFailsOnlyBeyondTheDepthLimit) {
    Tcl_Obj* shared = Tcl_NewStringObj("s", -1);
    Tcl_Obj* pair[] = {shared, Tcl_NewIntObj(7)};
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, Tcl_NewStringObj("k", -1), Tcl_NewListObj(2, pair));
    Tcl_Obj* top[] = {shared, Tcl_NewListObj(2, pair), dict};
    SmartTclObj original(Tcl_NewListObj(3, top));
    std::set<Tcl_Obj*> originals, copies;
    EXPECT_EQ(shape(original.get(), originals), "[s[so]{s:[so]}]");
    const int sharedRefs = shared->refCount;
    SmartTclObj copy(detachedCopy(original.get()));
    // The integer, which has no text yet, stays an integer.
    EXPECT_EQ(shape(copy.get(), copies), "[s[so]{s:[so]}]");
    EXPECT_EQ(text(copy.get()), text(original.get()));
    EXPECT_EQ(shared->refCount, sharedRefs);
    for (Tcl_Obj* obj : copies) {
        EXPECT_EQ(originals.count(obj), 0u);
        EXPECT_EQ(obj->refCount, 1);
    }
    SmartTclObj deep(nested(max_depth + 1)), atLimit(nested(max_depth));
    EXPECT_EQ(detachedCopy(deep.get()), nullptr);
    SmartTclObj copied(detachedCopy(atLimit.get()));
    EXPECT_TRUE(copied);
}
