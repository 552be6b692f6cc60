#include "PelorinHost/Linux/X11DisplayNote.h"

#include "PelorinNet/Channel/PelorinTLS.h"

#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr auto patience = X11Connection::patience;
constexpr std::string_view tokenProperty = "_PELORIN_DISPLAY_NOTE";
constexpr std::uint32_t longestToken = 64; // bytes

json jsonOf(const X11Crtc& crtc)
{
    return {{"id", crtc.id}, {"x", crtc.x}, {"y", crtc.y}, {"width", crtc.width}, {"height", crtc.height},
        {"mode", crtc.mode}, {"rotation", crtc.rotation}, {"outputs", crtc.outputs},
        {"transform", crtc.transform}, {"filter", crtc.filter}, {"filterParameters", crtc.filterParameters},
        {"panning", crtc.panning}};
}

X11Crtc crtcIn(const json& object)
{
    X11Crtc crtc;
    object.at("id").get_to(crtc.id);
    object.at("x").get_to(crtc.x);
    object.at("y").get_to(crtc.y);
    object.at("width").get_to(crtc.width);
    object.at("height").get_to(crtc.height);
    object.at("mode").get_to(crtc.mode);
    object.at("rotation").get_to(crtc.rotation);
    object.at("outputs").get_to(crtc.outputs);
    object.at("transform").get_to(crtc.transform);
    object.at("filter").get_to(crtc.filter);
    object.at("filterParameters").get_to(crtc.filterParameters);
    object.at("panning").get_to(crtc.panning);
    return crtc;
}

json jsonOf(const X11Arrangement& arrangement)
{
    json crtcs = json::array();
    for (const auto& crtc : arrangement.crtcs) crtcs.push_back(jsonOf(crtc));
    return {{"width", arrangement.width}, {"height", arrangement.height}, {"widthMm", arrangement.widthMm},
        {"heightMm", arrangement.heightMm}, {"primary", arrangement.primary}, {"crtcs", std::move(crtcs)}};
}

X11Arrangement arrangementIn(const json& object)
{
    X11Arrangement arrangement;
    object.at("width").get_to(arrangement.width);
    object.at("height").get_to(arrangement.height);
    object.at("widthMm").get_to(arrangement.widthMm);
    object.at("heightMm").get_to(arrangement.heightMm);
    object.at("primary").get_to(arrangement.primary);
    for (const auto& crtc : object.at("crtcs")) arrangement.crtcs.push_back(crtcIn(crtc));
    return arrangement;
}

bool isRamp(const X11Ramp& ramp)
{
    return !ramp.red.empty() && ramp.red.size() == ramp.green.size() && ramp.red.size() == ramp.blue.size();
}

// Throws what the library throws, too, for anything else.
X11DisplayNote noteIn(const json& object)
{
    X11DisplayNote note;
    object.at("token").get_to(note.token);
    if (object.contains("arrangement")) note.arrangement = arrangementIn(object.at("arrangement"));
    for (const auto& entry : object.at("ramps")) {
        X11Ramp ramp;
        entry.at("red").get_to(ramp.red);
        entry.at("green").get_to(ramp.green);
        entry.at("blue").get_to(ramp.blue);
        if (isRamp(ramp)) note.ramps[entry.at("crtc").get<std::uint32_t>()] = std::move(ramp);
    }
    return note;
}

xcb_atom_t propertyAtom(const X11Connection& connection)
{
    const auto reply = connection.reply<xcb_intern_atom_reply_t>(
        xcb_intern_atom(
            connection.get(), 0, static_cast<std::uint16_t>(tokenProperty.size()), tokenProperty.data()),
        patience);
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

} // namespace

std::string X11DisplayNote::toJSON() const
{
    json entries = json::array();
    for (const auto& [crtc, ramp] : ramps)
        entries.push_back({{"crtc", crtc}, {"red", ramp.red}, {"green", ramp.green}, {"blue", ramp.blue}});
    json object{{"token", token}, {"ramps", std::move(entries)}};
    if (arrangement) object["arrangement"] = jsonOf(*arrangement);
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<X11DisplayNote> X11DisplayNote::parse(std::string_view text)
{
    constexpr int mostNested = 8;
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < mostNested; };
    try {
        auto note = noteIn(json::parse(text, keepShallow));
        if (note.token.empty()) return std::nullopt;
        return note;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

std::string newNoteToken()
{
    return fmt::format("{:02x}", fmt::join(PelorinTLS::randomBytes(16), ""));
}

std::string noteTokenOn(const X11Connection& connection)
{
    const auto reply = connection.reply<xcb_get_property_reply_t>(
        xcb_get_property(connection.get(), 0, connection.root(), propertyAtom(connection), XCB_ATOM_STRING, 0,
            longestToken / 4),
        patience);
    if (!reply || reply->format != 8) return {};
    return {static_cast<const char*>(xcb_get_property_value(reply.get())),
        static_cast<std::size_t>(xcb_get_property_value_length(reply.get()))};
}

// On the server before in the file: a file without its mark would never be believed.
bool markWithToken(const X11Connection& connection, const std::string& token)
{
    xcb_change_property(connection.get(), XCB_PROP_MODE_REPLACE, connection.root(), propertyAtom(connection),
        XCB_ATOM_STRING, 8, static_cast<std::uint32_t>(token.size()), token.data());
    return noteTokenOn(connection) == token;
}

} // namespace pelorin
