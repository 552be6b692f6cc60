#pragma once

#include <utility>

namespace pelorin {

// A file descriptor that closes itself.
class OwnedDescriptor {
public:
    OwnedDescriptor() = default;
    explicit OwnedDescriptor(int newDescriptor) : descriptor(newDescriptor) {}
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept;
    ~OwnedDescriptor();

    int get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

private:
    int descriptor = -1;
};

} // namespace pelorin
