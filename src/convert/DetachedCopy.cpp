#include "TclConvert.h"

#include <vector>

namespace tcl_convert {

namespace {

// LEVEL counts the lists and dicts around VALUE, as the converters do; a
// leaf string is not a level of its own.
Tcl_Obj* copyAt(Tcl_Obj* value, int level) {
    bool container = value->typePtr == listType() || value->typePtr == dictType();
    if (container && level > max_depth) return nullptr;
    if (value->typePtr == listType()) {
        int count = 0;
        Tcl_Obj** elements = nullptr;
        Tcl_ListObjGetElements(nullptr, value, &count, &elements);
        std::vector<Tcl_Obj*> copies;
        copies.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            Tcl_Obj* element = copyAt(elements[i], level + 1);
            if (!element) {
                for (Tcl_Obj* copy : copies) {
                    Tcl_IncrRefCount(copy);
                    Tcl_DecrRefCount(copy);
                }
                return nullptr;
            }
            copies.push_back(element);
        }
        return Tcl_NewListObj(count, copies.data());
    }
    if (value->typePtr == dictType()) {
        Tcl_Obj* dict = Tcl_NewDictObj();
        Tcl_DictSearch search;
        Tcl_Obj* key = nullptr;
        Tcl_Obj* val = nullptr;
        int done = 0;
        if (Tcl_DictObjFirst(nullptr, value, &search, &key, &val, &done) != TCL_OK) return dict;
        for (; !done; Tcl_DictObjNext(&search, &key, &val, &done)) {
            Tcl_Obj* copy = copyAt(val, level + 1);
            if (!copy) {
                Tcl_DictObjDone(&search);
                Tcl_IncrRefCount(dict);
                Tcl_DecrRefCount(dict);
                return nullptr;
            }
            int length = 0;
            const char* text = Tcl_GetStringFromObj(key, &length);
            Tcl_DictObjPut(nullptr, dict, Tcl_NewStringObj(text, length), copy);
        }
        Tcl_DictObjDone(&search);
        return dict;
    }
    // An integer without text stays one: making its text here would cost
    // more than the whole copy, and converting the copy reads no text.
    Tcl_WideInt integer = 0;
    if (pureInteger(value, &integer)) return Tcl_NewWideIntObj(integer);
    int length = 0;
    const char* text = Tcl_GetStringFromObj(value, &length);
    return Tcl_NewStringObj(text, length);
}

} // namespace

Tcl_Obj* detachedCopy(Tcl_Obj* value) { return copyAt(value, 1); }

} // namespace tcl_convert
