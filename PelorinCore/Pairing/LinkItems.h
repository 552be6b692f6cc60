#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// The items of a pairing link, pelorin://pair?name=value&…, in any order: of those with the same name the
// first that has a value counts. A view of the link's text.
class LinkItems {
public:
    // Nothing for another scheme or host, and when broken percent-encoding or text that is not UTF-8 anywhere
    // in the items spoils the link.
    static std::optional<LinkItems> of(std::string_view url);

    std::optional<std::string> text(std::string_view name) const;
    std::optional<SecretBytes> secret(std::string_view name) const; // 32 bytes in base64url, no other number

private:
    explicit LinkItems(std::string_view newQuery) : query(newQuery) {}

    std::string_view query;
};

// The same being written, percent-encoded as RFC 3986 asks.
class LinkText {
public:
    LinkText();
    explicit LinkText(std::string begun) : url(std::move(begun)) {} // goes on with a link
    LinkText& add(std::string_view name, std::string_view value);
    LinkText& add(std::string_view name, ByteView bytes); // as secret reads them

    std::string url;
};

} // namespace pelorin
