// Keeps COM initialised on the calling thread for the object's life (single-threaded apartment).
// A negative result of CoInitialize throws pwrap::com_runtime_error "CoInitialize failed"; a positive one (already
// initialised) is success and is balanced like any other.
#pragma once

#include "platform/errors.h"

#include <objbase.h>

namespace pwrap {

class com_initializer {
public:
    com_initializer() {
        const HRESULT result = ::CoInitialize(nullptr);
        if (FAILED(result)) {
            throw com_runtime_error(result, "CoInitialize failed");
        }
    }
    com_initializer(const com_initializer&) = delete;
    com_initializer& operator=(const com_initializer&) = delete;
    virtual ~com_initializer() { ::CoUninitialize(); }
};

} // namespace pwrap
