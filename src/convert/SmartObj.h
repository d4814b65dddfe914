// Owning handles for Python and Tcl object references.
//
// SmartPyObj: touched only with the Python interpreter lock held (asserted in
// debug builds). Adopts a raw pointer without incrementing it; use
// SmartPyObj::borrow for a borrowed reference.
// SmartTclObj: increments on taking a raw pointer. The object behind it must
// be used by one thread at a time; the request protocol hands it over.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <tcl.h>

#include <cassert>
#include <string>
#include <utility>

namespace pytarn {

class SmartPyObj {
public:
    SmartPyObj() = default;
    // Adopts a new reference that the caller owns.
    explicit SmartPyObj(PyObject* adopted) : obj_(adopted) {}
    // Increments a borrowed reference and adopts it.
    static SmartPyObj borrow(PyObject* borrowed) {
        Py_XINCREF(borrowed);
        return SmartPyObj(borrowed);
    }
    static SmartPyObj none() { return borrow(Py_None); }

    SmartPyObj(const SmartPyObj& other) : obj_(other.obj_) {
        assertLock();
        Py_XINCREF(obj_);
    }
    SmartPyObj(SmartPyObj&& other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
    ~SmartPyObj() { reset(); }

    SmartPyObj& operator=(PyObject* adopted) {
        PyObject* old = std::exchange(obj_, adopted);
        release(old); // last: a release may run Python code
        return *this;
    }
    SmartPyObj& operator=(const SmartPyObj& other) {
        if (this != &other) {
            Py_XINCREF(other.obj_);
            *this = other.obj_;
        }
        return *this;
    }
    SmartPyObj& operator=(SmartPyObj&& other) noexcept {
        if (this != &other) *this = std::exchange(other.obj_, nullptr);
        return *this;
    }

    PyObject* get() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }
    // Gives the held reference to the caller; the handle becomes empty.
    PyObject* release() { return std::exchange(obj_, nullptr); }
    void reset() { *this = static_cast<PyObject*>(nullptr); }

    // UTF-8 text of the object (str() for non-strings), cut at the first NUL;
    // empty on any failure, with the Python error left set.
    std::string stdstr() const;

private:
    static void assertLock() { assert(PyGILState_Check()); }
    static void release(PyObject* old) {
        if (old) {
            assertLock();
            Py_DECREF(old);
        }
    }
    PyObject* obj_ = nullptr;
};

class SmartTclObj {
public:
    SmartTclObj() = default;
    // Takes a reference of its own, so a fresh object is owned by the handle.
    explicit SmartTclObj(Tcl_Obj* obj) : obj_(obj) {
        if (obj_) Tcl_IncrRefCount(obj_);
    }
    SmartTclObj(const SmartTclObj&) = delete;
    SmartTclObj& operator=(const SmartTclObj&) = delete;
    ~SmartTclObj() { *this = nullptr; }

    SmartTclObj& operator=(Tcl_Obj* obj) {
        if (obj) Tcl_IncrRefCount(obj);
        Tcl_Obj* old = std::exchange(obj_, obj);
        if (old) Tcl_DecrRefCount(old);
        return *this;
    }

    Tcl_Obj* get() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }

private:
    Tcl_Obj* obj_ = nullptr;
};

} // namespace pytarn
