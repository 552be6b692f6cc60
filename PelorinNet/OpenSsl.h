#pragma once

#include <memory>
#include <string>

// What the sources that speak OpenSSL share; its headers stay inside them.
namespace pelorin::openssl {

template <auto release>
struct Releaser {
    template <class T>
    void operator()(T* object) const
    {
        release(object);
    }
};

// Owns an object of the library, released by its own function.
template <class T, auto release>
using Handle = std::unique_ptr<T, Releaser<release>>;

// The reason of this thread's latest failure, in the library's words; its record of failures is then empty.
std::string takeErrorText();

} // namespace pelorin::openssl
