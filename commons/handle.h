// Owner of one raw library handle: refuses a null handle at construction and
// releases the handle with a fixed function when it goes away.
#ifndef VANTREL_COMMONS_HANDLE_H
#define VANTREL_COMMONS_HANDLE_H

#include <cstdlib>

#include "commons/exceptions.h"

namespace velmo {

// Accepts every value that is not null.
template <class T>
struct DefaultValidationPolicy {
    static bool isValid(T value) { return value != nullptr; }
};

// Releases memory that a library handed over with the system allocator.
template <class T>
void DefaultDestructionFunc(T value) {
    std::free(value);
}

template <class T, void (*DestructionFunc)(T) = &DefaultDestructionFunc<T>,
          class ValidationPolicy = DefaultValidationPolicy<T> >
class Handle {
public:
    // Takes ownership of value; throws Exc<&InvalidHandle> (and releases
    // nothing) when the policy rejects it.
    explicit Handle(T value) : value_(value) {
        if (!ValidationPolicy::isValid(value))
            throw VELMO_EXC(InvalidHandle);
    }

    virtual ~Handle() { DestructionFunc(value_); }

    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    T get() const { return value_; }

private:
    T value_;
};

}  // namespace velmo

#endif
