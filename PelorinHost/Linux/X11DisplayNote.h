#pragma once

#include "PelorinHost/Linux/X11Arrangement.h"
#include "PelorinHost/Linux/X11Gamma.h"

#include <map>
#include <string_view>

namespace pelorin {

// How an X server's displays were before we changed them. Kept in a file as well, so that whoever comes after
// a crash can put them back; the token, which the server carries too, tells whether it is still that server.
struct X11DisplayNote {
    std::string token;
    std::optional<X11Arrangement> arrangement{}; // while it is changed
    std::map<std::uint32_t, X11Ramp> ramps{}; // by CRTC, of those that may have changed
    bool operator==(const X11DisplayNote&) const = default;

    bool isEmpty() const { return !arrangement && ramps.empty(); }

    std::string toJSON() const;
    static std::optional<X11DisplayNote> parse(std::string_view text); // nothing for anything but such a text
};

std::string newNoteToken();
std::string noteTokenOn(const X11Connection& connection); // empty when the server carries none
bool markWithToken(const X11Connection& connection, const std::string& token); // false: it does not take it

} // namespace pelorin
