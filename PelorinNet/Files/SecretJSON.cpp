#include "PelorinNet/Files/SecretJSON.h"

#include "PelorinCore/Pairing/SecretBytes.h"
#include "PelorinNet/Files/AtomicFile.h"

#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr int maxDepth = 3; // a list, an object in it, a value

void wipe(std::string& text)
{
    SecretBytes::wipe({reinterpret_cast<std::uint8_t*>(text.data()), text.size()});
}

void wipeTexts(json& value)
{
    if (value.is_string()) wipe(value.get_ref<std::string&>());
    if (value.is_structured())
        for (json& element : value) wipeTexts(element);
}

} // namespace

SecretJSON::SecretJSON() : content(std::make_unique<json>()) {}

SecretJSON::SecretJSON(SecretJSON&&) noexcept = default;

SecretJSON& SecretJSON::operator=(SecretJSON&& other) noexcept
{
    std::swap(content, other.content);
    return *this;
}

SecretJSON::~SecretJSON()
{
    if (content) wipeTexts(*content);
}

SecretJSON SecretJSON::parse(std::string_view text)
{
    SecretJSON document;
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    *document = json::parse(text, keepShallow, false);
    if ((*document).is_discarded()) *document = nullptr;
    return document;
}

SecretJSON SecretJSON::read(const std::filesystem::path& path, std::size_t maxBytes)
{
    auto text = readWholeFile(path, maxBytes);
    if (!text) return {};
    SecretJSON document = parse(*text);
    wipe(*text);
    return document;
}

bool SecretJSON::write(const std::filesystem::path& path) const
{
    std::string text = content->dump(2, ' ', false, json::error_handler_t::replace) + "\n";
    const bool isWritten = writeFileAtomically(path, text);
    wipe(text);
    return isWritten;
}

const std::string* textIn(const json& object, const char* name)
{
    const auto found = object.find(name);
    return found == object.end() ? nullptr : found->get_ptr<const std::string*>();
}

} // namespace pelorin
