#include "PelorinNet/Rendezvous/RendezvousSocket.h"

#include <algorithm>

namespace pelorin {

std::optional<std::string> rendezvousURL(std::string_view service, std::string_view path)
{
    struct Scheme {
        std::string_view given, used;
    };
    for (const Scheme& scheme : {Scheme{"https://", "wss://"}, {"http://", "ws://"}}) {
        if (!service.starts_with(scheme.given)) continue;
        std::string_view rest = service.substr(scheme.given.size());
        while (rest.ends_with('/')) rest.remove_suffix(1);
        const bool isPlain = std::ranges::all_of(
            rest, [](char c) { return c > ' ' && c < 0x7F && c != '?' && c != '#' && c != '@'; });
        if (rest.empty() || rest.starts_with('/') || rest.starts_with(':') || !isPlain) return std::nullopt;
        return std::string(scheme.used).append(rest).append("/").append(path);
    }
    return std::nullopt;
}

} // namespace pelorin
