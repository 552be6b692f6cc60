#pragma once

#include <cstdint>
#include <string>

namespace pelorin {

// Why a frame could not be read. Fatal for the connection: a stream of frames has no way to find its place
// again.
struct ProtocolError {
    enum class Kind { frameTooLarge, invalidValue, truncated };

    Kind kind = Kind::truncated;
    std::int64_t length = 0; // frameTooLarge: the announced payload length
    std::string text; // invalidValue: what the value was, in English

    static ProtocolError frameTooLarge(std::int64_t length) { return {Kind::frameTooLarge, length, {}}; }
    static ProtocolError invalidValue(std::string text) { return {Kind::invalidValue, 0, std::move(text)}; }
    static ProtocolError truncated() { return {Kind::truncated, 0, {}}; }

    std::string description() const; // "frameTooLarge(16777217)", "invalidValue(…)", "truncated"
    bool operator==(const ProtocolError&) const = default;
};

} // namespace pelorin
