#include "PelorinPhone/Pairing/PairedHosts.h"

#include "PelorinCore/Label.h"
#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Files/SecretJSON.h"

#include <algorithm>
#include <cctype>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr std::size_t maxFileBytes = 1 << 20;
constexpr std::size_t keyBytes = 32, fingerprintBytes = 32;

// Held from the reading of the file to its writing. Makes the directory.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::filesystem::path& directory)
    {
        std::error_code ignored;
        std::filesystem::create_directories(directory.parent_path(), ignored);
        ::mkdir(directory.c_str(), 0700);
        descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        isHeld = descriptor >= 0 && ::fchmod(descriptor, 0700) == 0 && ::flock(descriptor, LOCK_EX) == 0;
    }
    ~DirectoryLock()
    {
        if (descriptor >= 0) ::close(descriptor);
    }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;
    explicit operator bool() const { return isHeld; }

private:
    int descriptor = -1;
    bool isHeld = false;
};

std::optional<std::uint16_t> portIn(const json& object)
{
    const auto found = object.find("port");
    if (found == object.end() || !found->is_number_unsigned()) return std::nullopt;
    const auto port = found->get<std::uint64_t>();
    return port <= 0xFFFF ? std::optional(static_cast<std::uint16_t>(port)) : std::nullopt;
}

bool readTailnet(PairedHost& host, const json& object)
{
    const std::string* address = textIn(object, "address");
    const std::string* id = textIn(object, "deviceID");
    const std::string* secret = textIn(object, "key");
    const auto port = portIn(object);
    if (!address || address->empty() || !id || !secret || !port) return false;
    auto key = bytesFromBase64(*secret);
    if (!key || key->size() != keyBytes || !PelorinTLS::isIdentity(*id, PelorinTLS::devicePrefix))
        return false;
    host.place = {*address, {}, *port};
    host.key = {*id, SecretBytes(std::move(*key))};
    if (const std::string* dnsName = textIn(object, "dnsName")) host.place.dnsName = *dnsName;
    return true;
}

bool readRemote(PairedHost& host, const json& object)
{
    const std::string* id = textIn(object, "hostID");
    const std::string* fingerprint = textIn(object, "fingerprint");
    const std::string* service = textIn(object, "service");
    if (!id || !fingerprint || !service) return false;
    auto bytes = bytesFromBase64(*fingerprint);
    if (!bytes || bytes->size() != fingerprintBytes) return false;
    host.remote = {*id, std::move(*bytes), *service};
    return true;
}

std::optional<PairedHost> hostIn(const json& object)
{
    if (!object.is_object()) return std::nullopt;
    const std::string* name = textIn(object, "name");
    if (!name) return std::nullopt;
    PairedHost host{asLabel(*name), {}, {}};
    const bool isRemote = object.contains("hostID"), isTailnet = object.contains("address") || !isRemote;
    if (isTailnet && !readTailnet(host, object)) return std::nullopt;
    if (isRemote && !readRemote(host, object)) return std::nullopt;
    return host;
}

json toJSON(const PairedHost& host)
{
    json object{{"name", host.name}};
    if (host.hasTailnet()) {
        object["address"] = host.place.address;
        object["port"] = host.place.port;
        object["deviceID"] = host.key.identity;
        object["key"] = base64EncodedString(host.key.secret.view());
        if (host.place.dnsName) object["dnsName"] = *host.place.dnsName;
    }
    if (host.remote) {
        object["hostID"] = host.remote->hostID;
        object["fingerprint"] = base64EncodedString(host.remote->fingerprint);
        object["service"] = host.remote->service;
    }
    return object;
}

bool isSameHost(const PairedHost& a, const PairedHost& b)
{
    if (a.remote && b.remote && a.remote->hostID == b.remote->hostID) return true;
    if (!a.hasTailnet() || !b.hasTailnet() || a.place.port != b.place.port) return false;
    return a.place.address == b.place.address || (a.place.dnsName && a.place.dnsName == b.place.dnsName);
}

// What tells hosts of one name apart.
const std::string& addressOf(const PairedHost& host)
{
    return host.hasTailnet() ? host.place.address : host.remote->hostID;
}

bool isSameName(const std::string& a, const std::string& b)
{
    return std::ranges::equal(a, b,
        [](unsigned char left, unsigned char right) { return std::tolower(left) == std::tolower(right); });
}

bool isCalled(const PairedHost& host, const std::string& text)
{
    return isSameName(host.name, text) || addressOf(host) == text || host.place.dnsName == text
        || (host.remote && host.remote->hostID == text);
}

Result<std::size_t, std::string> indexOf(const std::vector<PairedHost>& hosts, const std::string& text)
{
    std::vector<std::size_t> matches;
    for (std::size_t i = 0; i < hosts.size(); ++i)
        if (isCalled(hosts[i], text)) matches.push_back(i);
    if (matches.size() == 1) return matches[0];
    if (matches.empty())
        return std::unexpected(
            "no paired host is called \"" + text + "\"; `pelorin-viewer --list` tells which there are");
    std::string addresses;
    for (const std::size_t i : matches) addresses += (addresses.empty() ? "" : ", ") + addressOf(hosts[i]);
    return std::unexpected(fmt::format(
        "{} paired hosts are called \"{}\"; say which by its address: {}", matches.size(), text, addresses));
}

} // namespace

Result<std::vector<PairedHost>, std::string> PairedHosts::list() const
{
    std::error_code ignored;
    if (!std::filesystem::exists(file(), ignored)) return {};
    const auto document = SecretJSON::read(file(), maxFileBytes);
    const json& entries = *document;
    const auto damaged = std::unexpected(file().string() + " can't be read as a list of paired hosts");
    if (!entries.is_array()) return damaged;
    std::vector<PairedHost> hosts;
    for (const json& entry : entries) {
        auto host = hostIn(entry);
        if (!host) return damaged;
        hosts.push_back(std::move(*host));
    }
    return hosts;
}

Result<PairedHost, std::string> PairedHosts::find(const std::string& text) const
{
    const auto hosts = list();
    if (!hosts) return std::unexpected(hosts.error());
    const auto index = indexOf(*hosts, text);
    if (!index) return std::unexpected(index.error());
    return (*hosts)[*index];
}

Result<void, std::string> PairedHosts::add(const PairedHost& host) const
{
    const DirectoryLock lock(directory);
    if (!lock) return std::unexpected("cannot use " + directory.string());
    auto hosts = list();
    if (!hosts) return std::unexpected(hosts.error());
    std::erase_if(*hosts, [&](const PairedHost& known) { return isSameHost(known, host); });
    hosts->push_back(host);
    return write(*hosts);
}

Result<PairedHost, std::string> PairedHosts::forget(const std::string& text) const
{
    const DirectoryLock lock(directory);
    if (!lock) return std::unexpected("cannot use " + directory.string());
    auto hosts = list();
    if (!hosts) return std::unexpected(hosts.error());
    const auto index = indexOf(*hosts, text);
    if (!index) return std::unexpected(index.error());
    PairedHost forgotten = std::move((*hosts)[*index]);
    hosts->erase(hosts->begin() + static_cast<std::ptrdiff_t>(*index));
    if (const auto written = write(*hosts); !written) return std::unexpected(written.error());
    return forgotten;
}

Result<void, std::string> PairedHosts::write(const std::vector<PairedHost>& hosts) const
{
    SecretJSON document;
    *document = json::array();
    for (const PairedHost& host : hosts) (*document).push_back(toJSON(host));
    if (!document.write(file())) return std::unexpected("cannot write " + file().string());
    return {};
}

} // namespace pelorin
