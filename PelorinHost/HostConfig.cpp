#include "PelorinHost/HostConfig.h"

#include "PelorinNet/Files/AtomicFile.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr const char* fileName = "host.json";
constexpr const char* keptName = "host.json.malformed"; // a slip of the hand, for whoever made it to mend
constexpr std::size_t maxFileSize = 1 << 20; // bytes; hand-written settings take a few hundred
constexpr int maxDepth = 4; // our own values nest two deep; what lies deeper is not even kept

// Every field under its key, for reading and for writing.
template <class Record, class Visit>
    requires std::is_same_v<std::remove_const_t<Record>, HostConfig::LiveActivity>
void eachField(Record& record, Visit&& visit)
{
    visit("apnsKeyPath", record.apnsKeyPath);
    visit("apnsKeyID", record.apnsKeyID);
    visit("apnsTeamID", record.apnsTeamID);
    visit("bundleID", record.bundleID);
    visit("sandbox", record.sandbox);
    visit("pollSeconds", record.pollSeconds);
    visit("idleEndMinutes", record.idleEndMinutes);
    visit("codexRecentMinutes", record.codexRecentMinutes);
}

template <class Record, class Visit>
    requires std::is_same_v<std::remove_const_t<Record>, HostConfig>
void eachField(Record& record, Visit&& visit)
{
    visit("port", record.port);
    visit("allowedLoginNames", record.allowedLoginNames);
    visit("allowedNodeNames", record.allowedNodeNames);
    visit("bitrateMbps", record.bitrateMbps);
    visit("maxFrameRate", record.maxFrameRate);
    visit("preferHEVC", record.preferHEVC);
    visit("idleTimeoutMinutes", record.idleTimeoutMinutes);
    visit("requirePairing", record.requirePairing);
    visit("allowLoopbackForTesting", record.allowLoopbackForTesting);
    visit("rendezvous", record.rendezvous);
    visit("rendezvousURL", record.rendezvousURL);
    visit("reviewPairingCode", record.reviewPairingCode);
    visit("liveActivity", record.liveActivity);
}

// Each read answers whether the value is of the field's type; a boolean is no number, nor the other way
// round.
bool read(const json& value, bool& field)
{
    if (!value.is_boolean()) return false;
    field = value.get<bool>();
    return true;
}

bool read(const json& value, double& field)
{
    if (!value.is_number()) return false;
    field = value.get<double>();
    return true;
}

// JSON knows one kind of number, so 7420.0 is an integer too; 7420.5 and what does not fit are not.
template <std::integral Integer>
bool read(const json& value, Integer& field)
{
    if (value.is_number_unsigned() && !std::in_range<Integer>(value.get<std::uint64_t>())) return false;
    if (value.is_number_integer()) {
        const auto whole = value.get<std::int64_t>();
        if (!std::in_range<Integer>(whole)) return false;
        field = static_cast<Integer>(whole);
        return true;
    }
    if (!value.is_number_float()) return false;
    const auto number = value.get<double>();
    if (std::trunc(number) != number || std::abs(number) > 9007199254740992.0) return false; // 2^53
    if (!std::in_range<Integer>(static_cast<std::int64_t>(number))) return false;
    field = static_cast<Integer>(number);
    return true;
}

bool read(const json& value, std::string& field)
{
    if (!value.is_string()) return false;
    field = value.get_ref<const std::string&>();
    return true;
}

bool read(const json& value, std::vector<std::string>& field)
{
    if (!value.is_array()) return false;
    std::vector<std::string> strings(value.size());
    for (std::size_t i = 0; i < strings.size(); ++i)
        if (!read(value[i], strings[i])) return false;
    field = std::move(strings);
    return true;
}

template <class Record>
    requires std::is_class_v<Record>
bool read(const json& value, Record& record)
{
    if (!value.is_object()) return false;
    bool isSound = true;
    eachField(record, [&](const char* key, auto& field) {
        const auto found = value.find(key);
        if (isSound && found != value.end()) isSound = read(*found, field);
    });
    return isSound;
}

json toJSON(const auto& value)
{
    return value;
}

template <class Record>
    requires requires(const Record& record) { eachField(record, [](const char*, const auto&) {}); }
json toJSON(const Record& record)
{
    json object = json::object(); // sorted by key
    eachField(record, [&](const char* key, const auto& field) { object[key] = toJSON(field); });
    return object;
}

} // namespace

std::optional<HostConfig> HostConfig::decode(std::string_view text)
{
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    const json parsed = json::parse(text, keepShallow, false);
    HostConfig config;
    if (parsed.is_discarded() || !read(parsed, config)) return std::nullopt;
    return config;
}

std::string HostConfig::encode() const
{
    return toJSON(*this).dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<std::string> HostConfig::problemIn(const std::filesystem::path& directory)
{
    const auto file = directory / fileName;
    std::error_code ignored;
    if (!std::filesystem::exists(std::filesystem::symlink_status(file, ignored))) return std::nullopt;
    const auto text = readWholeFile(file, maxFileSize);
    if (text && decode(*text)) return std::nullopt;
    return text ? "host.json 写错了，已换成默认设置；原来的内容在 host.json.malformed\nhost.json was "
                  "malformed and has been "
                  "replaced by the defaults; what it said is in host.json.malformed"
                : "host.json 读不了，现在用默认设置\nhost.json cannot be read, so the defaults are used";
}

HostConfig HostConfig::load(const std::filesystem::path& directory)
{
    if (const auto text = readWholeFile(directory / fileName, maxFileSize)) {
        if (auto config = decode(*text)) return std::move(*config);
        writeFileAtomically(directory / keptName, *text);
    }
    const HostConfig defaults;
    defaults.save(directory);
    return defaults;
}

void HostConfig::save(const std::filesystem::path& directory) const
{
    writeFileAtomically(directory / fileName, encode());
}

} // namespace pelorin
