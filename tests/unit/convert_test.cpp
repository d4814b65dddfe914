#include "TestEnv.h"

#include "convert/TclConvert.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

using pytarn::SmartPyObj;
using pytarn::SmartTclObj;
using pytarn_test::pendingError;
using pytarn_test::py;
using pytarn_test::pyRun;
using namespace tcl_convert;

namespace {

const std::string atLimit = std::to_string(max_depth);
const std::string pastLimit = std::to_string(max_depth + 1);

std::string text(const SmartTclObj& obj) { return Tcl_GetString(obj.get()); }
std::string repr(const SmartPyObj& obj) { return SmartPyObj(PyObject_Repr(obj.get())).stdstr(); }
Tcl_Obj* tclString(const char* text) { return Tcl_NewStringObj(text, -1); }

SmartTclObj tcl(const std::string& expression) {
    return SmartTclObj(toTcl(py(expression.c_str())));
}

// Converts a fresh Tcl value and frees it.
SmartPyObj python(Tcl_Obj* value) {
    SmartTclObj owner(value);
    return fromTcl(value);
}

// `levels` lists around a string leaf.
Tcl_Obj* nestedTclList(int levels) {
    Tcl_Obj* value = tclString("x");
    for (int i = 0; i < levels; ++i) value = Tcl_NewListObj(1, &value);
    return value;
}

// The object's shape: [..] a list, {k:v ..} a dict, s a plain string, o any other type.
std::string shape(Tcl_Obj* obj, std::set<Tcl_Obj*>& seen) {
    seen.insert(obj);
    if (obj->typePtr == Tcl_GetObjType("list")) {
        int count = 0;
        Tcl_Obj** elements = nullptr;
        Tcl_ListObjGetElements(nullptr, obj, &count, &elements);
        std::string out = "[";
        for (int i = 0; i < count; ++i) out += shape(elements[i], seen);
        return out + "]";
    }
    if (obj->typePtr == Tcl_GetObjType("dict")) {
        Tcl_DictSearch search;
        Tcl_Obj *key, *value;
        int done = 0;
        std::string out = "{";
        Tcl_DictObjFirst(nullptr, obj, &search, &key, &value, &done);
        for (; !done; Tcl_DictObjNext(&search, &key, &value, &done))
            out += shape(key, seen) + ":" + shape(value, seen);
        return out + "}";
    }
    return obj->typePtr ? "o" : "s";
}

class Convert : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(pyRun("def nest(n, leaf):\n"
                          "    for _ in range(n): leaf = [leaf]\n"
                          "    return leaf\n"
                          "class BadStr:\n"
                          "    def __str__(self): raise ZeroDivisionError\n"
                          "class CallsOnDelete:\n"
                          "    def __init__(self, f): self.f = f\n"
                          "    def __del__(self): self.f()\n"));
    }
    void TearDown() override { PyErr_Clear(); }
};

// Records what a handle holds while one of its old values is being released.
SmartPyObj* watched = nullptr;
PyObject* heldDuringRelease = nullptr;
PyObject* recordHeld(PyObject*, PyObject*) {
    heldDuringRelease = watched->get();
    Py_RETURN_NONE;
}
PyMethodDef recordHeldDef{"recordHeld", recordHeld, METH_NOARGS, nullptr};

bool probeFreed = false;
void markFreed(Tcl_Obj*) { probeFreed = true; }
const Tcl_ObjType probeType{"probe", markFreed, nullptr, nullptr, nullptr};

Tcl_Obj* newProbe() {
    probeFreed = false;
    Tcl_Obj* obj = Tcl_NewObj();
    obj->typePtr = &probeType;
    return obj;
}

} // namespace

TEST(SmartPyObj, CountsEachReferenceOnce) {
    PyObject* raw = PyList_New(0);
    Py_INCREF(raw); // the test's own, to watch the count
    {
        SmartPyObj adopted(raw);
        EXPECT_EQ(Py_REFCNT(raw), 2);
        SmartPyObj borrowed = SmartPyObj::borrow(raw);
        EXPECT_EQ(Py_REFCNT(raw), 3);
        SmartPyObj copy(adopted);
        EXPECT_EQ(Py_REFCNT(raw), 4);
        SmartPyObj& alias = copy;
        copy = alias;
        EXPECT_EQ(Py_REFCNT(raw), 4);
        SmartPyObj moved(std::move(copy));
        EXPECT_EQ(Py_REFCNT(raw), 4);
    }
    EXPECT_EQ(Py_REFCNT(raw), 1);
    Py_DECREF(raw);
}

TEST_F(Convert, AssignmentReleasesTheOldValueLast) {
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
}

TEST(SmartTclObj, FreesAnObjectWithItsLastReference) {
    {
        SmartTclObj handle(newProbe());
        handle = handle.get();
        EXPECT_FALSE(probeFreed);
    }
    EXPECT_TRUE(probeFreed);
    SmartTclObj handle(newProbe());
    handle = Tcl_NewObj();
    EXPECT_TRUE(probeFreed);

    Tcl_Obj* obj = newProbe();
    Tcl_IncrRefCount(obj);
    { SmartTclObj other(obj); }
    EXPECT_FALSE(probeFreed);
    EXPECT_EQ(obj->refCount, 1);
    Tcl_DecrRefCount(obj);
    EXPECT_TRUE(probeFreed);
}

TEST_F(Convert, StdstrIsTheStrTextUpToNul) {
    EXPECT_EQ(py("'h\\u00e9'").stdstr(), "h\xC3\xA9");
    EXPECT_EQ(py("'a\\0b'").stdstr(), "a");
    EXPECT_EQ(py("[1, 'x']").stdstr(), "[1, 'x']");
    EXPECT_EQ(SmartPyObj().stdstr(), "");
    EXPECT_EQ(pendingError(), "");
    EXPECT_EQ(py("BadStr()").stdstr(), "");
    EXPECT_EQ(pendingError(), "ZeroDivisionError");
}

TEST(TextForms, TclOctal) {
    for (const char* yes : {"017", "0100", "0777"}) EXPECT_TRUE(isTclOctal(yes)) << yes;
    for (const char* no : {"0", "00", "17", "08", "0o17", "-017", " 017", ""})
        EXPECT_FALSE(isTclOctal(no)) << no;
}

TEST(TextForms, TclFloat) {
    for (const char* yes : {"1.5", ".5", "5.", "007.10"}) EXPECT_TRUE(isTclFloat(yes)) << yes;
    for (const char* no : {".", "15", "1.2.3", "-1.5", "+1.5", "1e5", " 1.5", "1.5 ", ""})
        EXPECT_FALSE(isTclFloat(no)) << no;
}

TEST_F(Convert, ContainersBecomeTclListsAndDicts) {
    for (const char* value : {"[1, 'a b', (2, [])]", "(1, 'a b', [2, ()])",
                              "type('L', (list,), {})([1, 'a b', (2, [])])",
                              "type('T', (tuple,), {})((1, 'a b', (2, ())))"})
        EXPECT_EQ(text(tcl(value)), "1 {a b} {2 {}}") << value;
    SmartTclObj dict = tcl("{'a': 1, 'b': [1, 2], 'c': {'d': ''}}");
    EXPECT_EQ(dict.get()->typePtr, Tcl_GetObjType("dict"));
    EXPECT_EQ(text(dict), "a 1 b {1 2} c {d {}}");
    EXPECT_EQ(text(tcl("type('D', (dict,), {})(a=1)")), "a 1");
    EXPECT_EQ(text(tcl("{1: 'x', '1': 'y'}")), "1 y");
    EXPECT_EQ(pendingError(), "");
}

TEST_F(Convert, OtherValuesBecomeTheirText) {
    const std::pair<const char*, const char*> cases[] = {
        {"2**100", "1267650600228229401496703205376"}, {"-2**31", "-2147483648"},
        {"'a\\0b'", "a"}, {"'\\U0001F600'", "\xED\xA0\xBD\xED\xB8\x80"}, // Tcl's surrogate pair
        {"float('-inf')", "-inf"}, {"None", "None"}, {"{1}", "{1}"}};
    for (auto [value, expected] : cases) EXPECT_EQ(text(tcl(value)), expected) << value;
    EXPECT_EQ(pendingError(), "");
}

TEST_F(Convert, RaisingStrGivesEmptyTextWithItsError) {
    EXPECT_EQ(text(tcl("BadStr()")), "");
    EXPECT_EQ(pendingError(), "ZeroDivisionError");
    PyErr_Clear();
    // The error must survive the conversion of the items after it.
    tcl("[BadStr(), type('Fine', (), {'__str__': lambda self: 'fine'})()]");
    EXPECT_EQ(pendingError(), "ZeroDivisionError");
}

TEST_F(Convert, TooDeepPythonValuesRaiseRecursionError) {
    tcl("nest(" + atLimit + ", 'x')");
    EXPECT_EQ(pendingError(), "");
    const std::string selfList = "(lambda l: l.append(l) or l)([])";
    const std::string selfDict = "(lambda d: d.update(k=d) or d)({})";
    for (const std::string& value :
         {"nest(" + pastLimit + ", 'x')", "nest(" + atLimit + ", {'k': 1})", selfList, selfDict}) {
        tcl(value);
        EXPECT_EQ(pendingError(), "RecursionError") << value;
        PyErr_Clear();
    }
    tcl("nest(" + atLimit + ", 'x')");
    EXPECT_EQ(pendingError(), "") << "a failed conversion left its depth behind";
}

TEST_F(Convert, TclTextBecomesIntFloatOrStr) {
    const std::pair<const char*, const char*> cases[] = {
        {" 42 ", "42"}, {"-7", "-7"}, {"0x1F", "31"}, {"0", "0"}, {"017", "15"}, {"0017", "15"},
        {"08", "'08'"}, {"1.5", "1.5"}, {".5", "0.5"}, {"5.", "5.0"}, {"007.10", "7.1"},
        {"-1.5", "'-1.5'"}, {"1e3", "'1e3'"}, {"1.0e-5", "'1.0e-5'"}, {"1.2.3", "'1.2.3'"},
        {"", "''"}, {"a b", "'a b'"}, {"\xF0\x9F\x98\x80", "'\xF0\x9F\x98\x80'"},
        {"\xED\xA0\xBD\xED\xB8\x80", "'\xF0\x9F\x98\x80'"},
        {"123456789012345678901234567890", "123456789012345678901234567890"}};
    for (auto [value, expected] : cases)
        EXPECT_EQ(repr(python(tclString(value))), expected) << value;
    EXPECT_EQ(pendingError(), "");
}

TEST_F(Convert, IntegersWithoutTextConvertAsTheirDigitsWouldAndGetNoText) {
    for (Tcl_WideInt number : {Tcl_WideInt{0}, Tcl_WideInt{-15}, Tcl_WideInt{1} << 62,
                               -(Tcl_WideInt{1} << 62) * 2}) {
        SmartTclObj value(Tcl_NewWideIntObj(number));
        EXPECT_EQ(repr(python(value.get())), std::to_string(number));
        EXPECT_EQ(value.get()->bytes, nullptr);
        SmartTclObj copy(detachedCopy(value.get()));
        EXPECT_EQ(value.get()->bytes, nullptr);
        EXPECT_EQ(repr(python(copy.get())), std::to_string(number));
    }
    // Once an integer has text, the text decides: Tcl reads "-017" as -15,
    // the conversion rules leave it a str.
    SmartTclObj octal(tclString("-017"));
    Tcl_WideInt number = 0;
    ASSERT_EQ(Tcl_GetWideIntFromObj(nullptr, octal.get(), &number), TCL_OK);
    EXPECT_EQ(number, -15);
    EXPECT_EQ(repr(python(octal.get())), "'-017'");
    SmartTclObj copy(detachedCopy(octal.get()));
    EXPECT_EQ(repr(python(copy.get())), "'-017'");
    EXPECT_EQ(pendingError(), "");
}

TEST_F(Convert, TclListsAndDictsKeepTheirShape) {
    Tcl_Obj* pair[] = {Tcl_NewIntObj(1), tclString("a b")};
    SmartTclObj keepFirst(pair[0]), keepSecond(pair[1]);
    Tcl_Obj* items[] = {pair[0], pair[1], Tcl_NewListObj(2, pair)};
    EXPECT_EQ(repr(python(Tcl_NewListObj(3, items))), "[1, 'a b', [1, 'a b']]");

    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, tclString("1"), tclString("2"));
    Tcl_DictObjPut(nullptr, dict, tclString("k"), Tcl_NewListObj(2, pair));
    EXPECT_EQ(repr(python(dict)), "{'1': 2, 'k': [1, 'a b']}");

    SmartTclObj plain(tclString("1 2 3"));
    EXPECT_EQ(repr(fromTcl(plain.get())), "'1 2 3'");
    int length = 0;
    Tcl_ListObjLength(nullptr, plain.get(), &length);
    EXPECT_EQ(repr(fromTcl(plain.get())), "[1, 2, 3]");
    EXPECT_EQ(pendingError(), "");
}

TEST_F(Convert, TclNulGivesNoValue) {
    const Tcl_UniChar chars[] = {'a', 0, 'b'};
    for (Tcl_Obj* value : {tclString("a\xC0\x80" "b"), Tcl_NewUnicodeObj(chars, 3),
                           Tcl_NewStringObj("a\0b", 3)}) {
        EXPECT_FALSE(python(value));
        EXPECT_EQ(pendingError(), "");
    }
    ASSERT_TRUE(pyRun("import io, sys\nsaved, sys.stderr = sys.stderr, io.StringIO()"));
    Tcl_Obj* items[] = {tclString("a"), tclString("b"), tclString("\xC0\x80"), tclString("c")};
    EXPECT_EQ(repr(python(Tcl_NewListObj(4, items))), "['a', 'b']");
    EXPECT_EQ(pendingError(), "");
    EXPECT_NE(py("sys.stderr.getvalue()").stdstr().find("Error"), std::string::npos);
    ASSERT_TRUE(pyRun("sys.stderr = saved"));
}

TEST_F(Convert, TclTextThatIsNotUtf8GivesNoValue) {
    // Lone surrogate halves, a pair in the wrong order, a byte no UTF-8 has,
    // a sequence cut short.
    for (const char* text : {"\xED\xA0\x80", "a\xED\xB8\x80", "\xED\xB8\x80\xED\xA0\xBD",
                             "\xFF", "\xE2\x82"}) {
        EXPECT_FALSE(python(tclString(text))) << text;
        EXPECT_EQ(pendingError(), "") << text;
    }
}

TEST_F(Convert, DecimalTextPastPythonsDigitLimitBecomesTheStr) {
    const std::string digits(5000, '7');
    for (const std::string& text : {digits, " -" + digits + " ", "1_" + digits, digits + "x"}) {
        EXPECT_EQ(repr(python(tclString(text.c_str()))), "'" + text + "'");
        EXPECT_EQ(pendingError(), "");
    }
    // Tcl's octal has no such limit.
    SmartPyObj octal = python(tclString(("0" + digits).c_str()));
    EXPECT_TRUE(octal && PyLong_Check(octal.get()));
    EXPECT_EQ(repr(python(tclString(" -1_000 "))), "-1000");
}

TEST_F(Convert, TooDeepTclValuesRaiseRecursionError) {
    EXPECT_TRUE(python(nestedTclList(max_depth)));
    EXPECT_EQ(pendingError(), "");
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, tclString("k"), nestedTclList(max_depth));
    for (Tcl_Obj* value : {nestedTclList(max_depth + 1), dict}) {
        EXPECT_FALSE(python(value));
        EXPECT_EQ(pendingError(), "RecursionError");
        PyErr_Clear();
    }
}

TEST(DetachedCopy, SharesNoObjectAndKeepsTheShape) {
    Tcl_Obj* shared = tclString("s");
    Tcl_Obj* pair[] = {shared, Tcl_NewIntObj(7)};
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, tclString("k"), Tcl_NewListObj(2, pair));
    Tcl_Obj* top[] = {shared, Tcl_NewListObj(2, pair), dict};
    SmartTclObj original(Tcl_NewListObj(3, top));
    std::set<Tcl_Obj*> originals;
    EXPECT_EQ(shape(original.get(), originals), "[s[so]{s:[so]}]");
    const int sharedRefs = shared->refCount;

    SmartTclObj copy(detachedCopy(original.get()));
    std::set<Tcl_Obj*> copies;
    // The integer, which has no text yet, stays an integer.
    EXPECT_EQ(shape(copy.get(), copies), "[s[so]{s:[so]}]");
    EXPECT_EQ(text(copy), text(original));
    EXPECT_EQ(shared->refCount, sharedRefs);
    for (Tcl_Obj* obj : copies) {
        EXPECT_EQ(originals.count(obj), 0u);
        EXPECT_EQ(obj->refCount, 1);
    }
}

TEST(DetachedCopy, FailsOnlyBeyondTheDepthLimit) {
    SmartTclObj deep(nestedTclList(max_depth + 1));
    EXPECT_EQ(detachedCopy(deep.get()), nullptr);
    SmartTclObj atLimit(nestedTclList(max_depth));
    SmartTclObj copy(detachedCopy(atLimit.get()));
    EXPECT_TRUE(copy);
}
