#pragma once

#include "PelorinCore/Result.h"

#include <utility>

namespace pelorin {

// Bytes that must not outlive their use: every copy is wiped when it is dropped or replaced, and two are
// compared in a time that depends on their lengths only.
class SecretBytes {
public:
    SecretBytes() = default;
    explicit SecretBytes(ByteView bytes) : held(bytes.begin(), bytes.end()) {}
    explicit SecretBytes(Bytes&& bytes) : held(std::move(bytes)) {}
    SecretBytes(const SecretBytes&) = default;
    SecretBytes(SecretBytes&& other) noexcept : held(std::exchange(other.held, {})) {}
    SecretBytes& operator=(SecretBytes other) noexcept;
    ~SecretBytes() { wipe(held); }

    ByteView view() const { return held; }
    bool isEmpty() const { return held.empty(); }
    bool operator==(const SecretBytes& other) const;

    // Zeroes bytes in a way the compiler keeps.
    static void wipe(std::span<std::uint8_t> bytes);

private:
    Bytes held;
};

} // namespace pelorin
