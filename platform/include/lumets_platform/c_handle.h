// CHandle<T, Free>: the owning handle every C library object lives in. It
// calls Free(pointer) once when it goes out of scope; null is a valid, empty
// handle. Each library declares its handles in one header of its own.
#pragma once

#include <memory>

namespace lumets {

template <auto Free>
struct CFree {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};

template <typename T, auto Free>
using CHandle = std::unique_ptr<T, CFree<Free>>;

}  // namespace lumets
