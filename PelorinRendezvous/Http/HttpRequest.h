#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelorin {

// The head of one HTTP/1.1 request, the only kind that we take: GET, and no body.
struct HttpRequest {
    std::string target; // "/v1/host", without its query
    std::vector<std::pair<std::string, std::string>> fields; // names in lower case, values trimmed

    // head: up to and with the empty line. Nothing for what RFC 9112 does not allow, for other methods and
    // versions, and for a request that announces a body.
    static std::optional<HttpRequest> parse(std::string_view head);

    // All values of that field joined by commas, as the RFC reads several lines; empty when there is none.
    std::string field(std::string_view name) const;
    bool lists(std::string_view name, std::string_view token) const; // in any case of letters

    bool isUpgrade() const { return lists("connection", "upgrade") && lists("upgrade", "websocket"); }
};

// The end of the head in what has arrived: its size with the empty line; nothing while it is not there.
std::optional<std::size_t> httpHeadSize(std::string_view received);

// A whole answer after which the connection ends.
std::string httpResponse(std::string_view status, std::string_view contentType, std::string_view body,
    std::string_view moreFields = {});

} // namespace pelorin
