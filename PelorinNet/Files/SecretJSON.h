#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace pelorin {

// A JSON document with secrets in it: all its texts are wiped when it goes, and so is what is read and
// written on the way to and from its file.
class SecretJSON {
public:
    SecretJSON(); // null
    SecretJSON(SecretJSON&&) noexcept;
    SecretJSON& operator=(SecretJSON&& other) noexcept;
    ~SecretJSON();

    nlohmann::json& operator*() { return *content; }
    const nlohmann::json& operator*() const { return *content; }

    // Null when text is no JSON; what lies deeper than a list of flat objects is left out.
    static SecretJSON parse(std::string_view text);
    // The same for a file; null, too, when there is none or it is longer than maxBytes.
    static SecretJSON read(const std::filesystem::path& path, std::size_t maxBytes);
    // Indented, as writeFileAtomically writes.
    bool write(const std::filesystem::path& path) const;

private:
    std::unique_ptr<nlohmann::json> content;
};

// The object's member of this name; null when there is none or it is no text.
const std::string* textIn(const nlohmann::json& object, const char* name);

} // namespace pelorin
