#include "PelorinRendezvous/Http/HttpRequest.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin {
namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view headEnd = "\r\n\r\n";

char lower(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

std::string lowered(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool isTokenCharacter(char letter)
{
    const bool isAlphanumeric = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z')
        || (letter >= '0' && letter <= '9');
    return isAlphanumeric || std::string_view("!#$%&'*+-.^_`|~").contains(letter);
}

bool isValueCharacter(char letter)
{
    return letter == '\t' || (static_cast<unsigned char>(letter) >= ' ' && letter != '\x7f');
}

std::string_view takeLine(std::string_view& text)
{
    const auto end = text.find(lineEnd);
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + lineEnd.size());
    return line;
}

std::optional<std::string> targetOf(std::string_view requestLine)
{
    constexpr std::string_view method = "GET ";
    constexpr std::string_view version = " HTTP/1.1";
    if (!requestLine.starts_with(method) || !requestLine.ends_with(version)) return std::nullopt;
    requestLine.remove_prefix(method.size());
    if (requestLine.size() <= version.size()) return std::nullopt;
    requestLine.remove_suffix(version.size());
    const bool isPlain
        = std::ranges::all_of(requestLine, [](char letter) { return letter > ' ' && letter < '\x7f'; });
    if (!requestLine.starts_with('/') || !isPlain) return std::nullopt;
    return std::string(requestLine.substr(0, requestLine.find('?')));
}

std::optional<std::pair<std::string, std::string>> fieldOf(std::string_view line)
{
    const auto colon = line.find(':');
    if (colon == line.npos || colon == 0) return std::nullopt;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (!std::ranges::all_of(name, isTokenCharacter) || !std::ranges::all_of(value, isValueCharacter))
        return std::nullopt;
    return std::pair(lowered(name), std::string(value));
}

} // namespace

std::optional<HttpRequest> HttpRequest::parse(std::string_view head)
{
    if (!head.ends_with(headEnd)) return std::nullopt;
    head.remove_suffix(lineEnd.size());
    HttpRequest request;
    auto target = targetOf(takeLine(head));
    if (!target) return std::nullopt;
    request.target = std::move(*target);
    while (!head.empty()) {
        auto field = fieldOf(takeLine(head));
        if (!field) return std::nullopt;
        request.fields.push_back(std::move(*field));
    }
    const std::string length = request.field("content-length");
    if (!request.field("transfer-encoding").empty() || !(length.empty() || length == "0"))
        return std::nullopt;
    return request;
}

std::string HttpRequest::field(std::string_view name) const
{
    std::string joined;
    for (const auto& [fieldName, value] : fields) {
        if (fieldName != name) continue;
        if (!joined.empty()) joined += ", ";
        joined += value;
    }
    return joined;
}

bool HttpRequest::lists(std::string_view name, std::string_view token) const
{
    const std::string values = lowered(field(name));
    std::string_view rest = values;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        if (trimmed(rest.substr(0, comma)) == token) return true;
        rest = comma == rest.npos ? std::string_view() : rest.substr(comma + 1);
    }
    return false;
}

std::optional<std::size_t> httpHeadSize(std::string_view received)
{
    const auto end = received.find(headEnd);
    if (end == received.npos) return std::nullopt;
    return end + headEnd.size();
}

std::string httpResponse(
    std::string_view status, std::string_view contentType, std::string_view body, std::string_view moreFields)
{
    return fmt::format("HTTP/1.1 {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nCache-Control: no-store\r\n"
                       "Connection: close\r\n{}\r\n{}",
        status, contentType, body.size(), moreFields, body);
}

} // namespace pelorin
