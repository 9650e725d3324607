// The base of every platform Core Foundation object, so that one CFRelease serves all of them:
// a reference count and a virtual destructor through which the last release frees the object
// with whatever it holds.
#pragma once

#include <atomic>

struct __CFRuntimeBase {
    __CFRuntimeBase() = default;
    __CFRuntimeBase(const __CFRuntimeBase&) = delete;
    __CFRuntimeBase& operator=(const __CFRuntimeBase&) = delete;
    virtual ~__CFRuntimeBase() = default;

    mutable std::atomic<int> references{1};
};
