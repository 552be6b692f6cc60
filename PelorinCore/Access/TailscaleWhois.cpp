#include "PelorinCore/Access/TailscaleWhois.h"

#include "PelorinCore/Access/TailscaleJSON.h"

#include <nlohmann/json.hpp>

namespace pelorin {

// The keys of the tool's answer, as they are nested there.
struct TailscaleWhois::Raw {
    struct {
        std::optional<std::string> Name; // "phone.tail1234.ts.net."
        std::optional<std::string> ComputedName; // "phone"
        struct {
            std::optional<std::string> OS;
        } Hostinfo;
    } Node;
    struct {
        std::optional<std::string> LoginName;
    } UserProfile;

    explicit Raw(TailscaleJSON& reader, std::string_view text)
    {
        const auto root = reader.parse(text, maxSize);
        const auto& node = reader.requiredObject(root, "Node");
        Node.Name = reader.optionalString(node, "Name");
        Node.ComputedName = reader.optionalString(node, "ComputedName");
        Node.Hostinfo.OS = reader.optionalString(reader.optionalObject(node, "Hostinfo"), "OS");
        UserProfile.LoginName
            = reader.optionalString(reader.requiredObject(root, "UserProfile"), "LoginName");
        // An empty name must not pass for the name of two who have none.
        if (!UserProfile.LoginName) reader.fail("no LoginName");
    }
};

Result<TailscaleWhois, TailscaleJSONError> TailscaleWhois::parse(std::string_view json)
{
    TailscaleJSON reader;
    const Raw raw(reader, json);
    if (reader.problem()) return std::unexpected(*reader.problem());
    // The short name is the one that users see and write into their settings.
    const auto nodeName = raw.Node.ComputedName ? raw.Node.ComputedName : raw.Node.Name;
    return TailscaleWhois{*raw.UserProfile.LoginName,
        TailscaleJSON::withoutTrailingDot(nodeName.value_or("")), raw.Node.Hostinfo.OS};
}

} // namespace pelorin
