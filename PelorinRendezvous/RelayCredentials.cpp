#include "PelorinRendezvous/RelayCredentials.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Stun/HmacSHA1.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin {

RelayCredentials::RelayCredentials(std::vector<std::string> newURIs, SecretBytes newSecret)
    : uris(std::move(newURIs)),
      secret(std::move(newSecret))
{
}

std::optional<JsonText> RelayCredentials::make(WallTime now, ByteView random) const
{
    if (uris.empty()) return std::nullopt;
    nlohmann::json object{{"uris", uris}};
    if (std::ranges::any_of(uris, [](const std::string& uri) { return uri.starts_with("turn"); })) {
        const auto expiry = std::chrono::floor<std::chrono::seconds>(now + validity).time_since_epoch();
        const std::string username = fmt::format("{}:{}", expiry.count(), base64URLEncodedString(random));
        const ByteView name(reinterpret_cast<const std::uint8_t*>(username.data()), username.size());
        object["username"] = username;
        object["credential"] = base64EncodedString(hmacSHA1(secret.view(), {name}));
    }
    return JsonText{object.dump()};
}

} // namespace pelorin
