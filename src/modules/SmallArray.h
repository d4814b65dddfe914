// A call's words or arguments: a few kept in the object itself, so that the
// common call allocates nothing; more go to the heap.
#pragma once

#include <memory>
#include <new>

namespace pytarn {

// `count` elements of T, inline up to `Inline`, else on the heap. data() is
// null when the heap had no room: the caller reports that. Elements are
// default-initialised: pointers hold no value until written.
template <typename T, int Inline>
class SmallArray {
public:
    explicit SmallArray(int count) : count_(count < 0 ? 0 : count) {
        if (count_ > Inline) more_.reset(new (std::nothrow) T[count_]);
        data_ = count_ > Inline ? more_.get() : inline_;
    }
    SmallArray(const SmallArray&) = delete;
    SmallArray& operator=(const SmallArray&) = delete;

    int size() const { return count_; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T& operator[](int i) { return data_[i]; }
    const T& operator[](int i) const { return data_[i]; }

private:
    int count_;
    T* data_;
    T inline_[Inline];
    std::unique_ptr<T[]> more_;
};

} // namespace pytarn
