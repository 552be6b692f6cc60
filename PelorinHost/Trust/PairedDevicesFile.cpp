#include "PelorinHost/Trust/PairedDevicesFile.h"

#include "PelorinCore/Label.h"
#include "PelorinCore/Pairing/Base64URL.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

namespace pelorin {
namespace {

using nlohmann::json;
using Device = PairingStore::Device;
using Seconds = std::chrono::duration<double>;

constexpr std::size_t maxFileBytes = 1 << 20; // several times what the most devices take
constexpr std::size_t keyBytes = 32;
constexpr std::size_t publicKeyBytes = 65;
constexpr double farthestSecond = 8e9; // from 2001; nanoseconds in 64 bits hold 292 years from 1970

constexpr std::chrono::sys_days epoch = std::chrono::year(2001) / 1 / 1;

std::optional<Bytes> bytesIn(const json& object, const char* key)
{
    const std::string* text = textIn(object, key);
    return text ? bytesFromBase64(*text) : std::nullopt;
}

std::optional<WallTime> timeIn(const json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number()) return std::nullopt;
    const auto seconds = found->get<double>();
    if (!(std::abs(seconds) < farthestSecond)) return std::nullopt;
    return epoch + std::chrono::round<WallTime::duration>(Seconds(seconds));
}

std::optional<Device> deviceIn(const json& object)
{
    if (!object.is_object()) return std::nullopt;
    const std::string* id = textIn(object, "id");
    const std::string* name = textIn(object, "name");
    auto key = bytesIn(object, "key");
    const auto pairedAt = timeIn(object, "pairedAt");
    if (!id || !PelorinTLS::isIdentity(*id, PelorinTLS::devicePrefix) || !name || !key || !pairedAt)
        return std::nullopt;
    if (!key->empty() && key->size() != keyBytes) return std::nullopt;
    Device device{*id, asLabel(*name), SecretBytes(std::move(*key)), *pairedAt, {}};
    if (!object.contains("publicKey")) return device;
    device.publicKey = bytesIn(object, "publicKey");
    if (!device.publicKey || device.publicKey->size() != publicKeyBytes) return std::nullopt;
    return device;
}

json toJSON(const Device& device)
{
    json object{{"id", device.id}, {"name", device.name}, {"key", base64EncodedString(device.key.view())},
        {"pairedAt", Seconds(device.pairedAt - WallTime(epoch)).count()}};
    if (device.publicKey) object["publicKey"] = base64EncodedString(*device.publicKey);
    return object;
}

// A save that was killed leaves its temporary file behind, secrets and all.
void removeLeftOvers(const std::filesystem::path& file)
{
    std::error_code ignored;
    const std::string prefix = file.filename().string() + ".";
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path(), ignored))
        if (entry.path().filename().string().starts_with(prefix))
            std::filesystem::remove(entry.path(), ignored);
}

} // namespace

Result<std::vector<Device>, std::string> PairedDevicesFile::decode(const SecretJSON& document)
{
    const json& list = *document;
    if (!list.is_array()) return std::unexpected("it can't be read as a list of devices");
    if (list.size() > PairingStore::maxDevices) return std::unexpected("it lists too many devices");
    std::vector<Device> devices;
    std::set<std::string> ids;
    for (const json& entry : list) {
        auto device = deviceIn(entry);
        if (!device) return std::unexpected("one of its records is damaged");
        if (!ids.insert(device->id).second) return std::unexpected("two of its records share an id");
        devices.push_back(std::move(*device));
    }
    return devices;
}

SecretJSON PairedDevicesFile::encode(const std::vector<Device>& devices)
{
    SecretJSON document;
    *document = json::array();
    for (const Device& device : devices) (*document).push_back(toJSON(device));
    return document;
}

Result<std::vector<Device>, std::string> PairedDevicesFile::read(const std::filesystem::path& file)
{
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored)) return {};
    return decode(SecretJSON::read(file, maxFileBytes));
}

bool PairedDevicesFile::write(const std::filesystem::path& file, const std::vector<Device>& devices)
{
    removeLeftOvers(file);
    return encode(devices).write(file);
}

} // namespace pelorin
