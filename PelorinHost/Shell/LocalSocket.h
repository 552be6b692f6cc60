#pragma once

#include "PelorinCore/Result.h"

#include <filesystem>
#include <string>
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

// Local stream sockets by their path. The error is a text for people.
Result<OwnedDescriptor, std::string> listenLocally(
    const std::filesystem::path& path); // mode 0600, non-blocking
Result<OwnedDescriptor, std::string> connectLocally(const std::filesystem::path& path);

} // namespace pelorin
