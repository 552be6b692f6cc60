#include "PelorinHost/Shell/PairingCommands.h"

#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "PelorinHost/Trust/QrImage.h"

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

std::string replyOf(const json& object)
{
    return object.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string refusal(const std::string& why)
{
    return replyOf({{"error", why}});
}

std::optional<std::string> whyNoPairing(
    const HostServer::Status& server, const HostConfig& config, bool isRemote)
{
    if (!config.requirePairing || config.allowLoopbackForTesting)
        return "没法配对：未启用配对（requirePairing 关闭或处于测试模式），只校验 Tailscale 身份\n"
               "This host does not ask phones to be paired (requirePairing is off, or it runs in test mode).";
    if (server.tailnetAddress || isRemote) return std::nullopt;
    if (!config.rendezvous)
        return "没法配对：远程连接已在配置文件里关闭（host.json 的 rendezvous），这台 Mac 也没有 Tailscale";
    return "没法配对：这台 Mac 现在没有 Tailscale 地址，也没有设置远程服务（host.json 的 rendezvousURL）\n"
           "Pairing needs an address on the tailnet, which this machine does not have now, or a rendezvous "
           "service. Start Tailscale and try again, or set rendezvousURL in host.json.";
}

SecretBytes secretOf(const std::string& text)
{
    return SecretBytes(ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

RemotePairingLink linkThroughService(const HostConfig& config, const std::string& hostName,
    const PairingCommands::Remote& remote, const SecretBytes& code)
{
    return {hostName, remote.hostID, remote.fingerprint, config.rendezvousURL, code};
}

// The members about the review code, none where there is none.
json reviewOf(const HostConfig& config, const std::string& hostName,
    const std::optional<PairingCommands::Remote>& remote)
{
    if (!remote || config.reviewPairingCode.empty()) return json::object();
    const auto url = linkThroughService(config, hostName, *remote, secretOf(config.reviewPairingCode)).url();
    const bool isLink = RemotePairingLink::parse(url).has_value();
    return {{"reviewText", "审核模式：配对链接长期有效，只用于演示 Mac"},
        {"reviewLink", isLink ? json(url) : json()}};
}

std::string readableReview(const json& pairing)
{
    if (!pairing.contains("reviewLink")) return "";
    const json& link = pairing.at("reviewLink");
    return "\n" + pairing.at("reviewText").get<std::string>() + "\n"
        + (link.is_null() ? "There is no link for it: reviewPairingCode in host.json needs 32 bytes for that."
                          : link.get<std::string>())
        + "\n";
}

std::string readableTime(const std::string& iso)
{
    return iso.substr(0, 10) + " " + iso.substr(11, 5);
}

// What a reply says, or nothing for a text that lacks something.
template <class Read>
std::optional<std::string> readable(const std::string& reply, const Read& read)
{
    try {
        return read(json::parse(reply));
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

} // namespace

std::string PairingCommands::pair(PairingStore& store, const HostServer::Status& server,
    const HostConfig& config, const std::string& hostName, const std::optional<Remote>& remote)
{
    if (const auto why = whyNoPairing(server, config, remote.has_value())) return refusal(*why);
    const auto offer = store.beginPairing();
    PairingOffer link;
    if (server.tailnetAddress)
        link.tailnet = PairingLink{hostName, *server.tailnetAddress, server.dnsName,
            server.port ? server.port : config.port, offer.key.identity, offer.key.secret};
    if (remote) link.remote = linkThroughService(config, hostName, *remote, offer.code);
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(PairingStore::validity).count();
    json reply{{"link", link.url()}, {"expiresInSeconds", PairingStore::validity.count()},
        {"text", fmt::format("用 iPhone 相机或 Pelorin 扫码配对，{} 分钟内有效，只能用一次", minutes)}};
    reply.update(reviewOf(config, hostName, remote));
    return replyOf(reply);
}

std::string PairingCommands::review(
    const HostConfig& config, const std::string& hostName, const std::optional<Remote>& remote)
{
    return replyOf(reviewOf(config, hostName, remote));
}

std::string PairingCommands::devices(const PairingStore& store)
{
    json list = json::array();
    for (const auto& device : store.devices())
        list.push_back({{"id", device.id}, {"name", device.name},
            {"pairedAt",
                fmt::format(
                    "{:%Y-%m-%dT%H:%M:%SZ}", std::chrono::floor<std::chrono::seconds>(device.pairedAt))},
            {"through", device.key.isEmpty() ? "rendezvous" : "tailnet"}});
    return replyOf({{"devices", list}});
}

std::string PairingCommands::remove(PairingStore& store, const std::string& id)
{
    if (store.remove(id)) return replyOf({{"removed", id}});
    return refusal("no paired phone has the id \"" + id + "\"; `pelorin-host devices` lists them");
}

std::optional<std::string> PairingCommands::readablePair(const std::string& reply)
{
    return readable(reply, [](const json& pairing) {
        const auto link = pairing.at("link").get<std::string>();
        const auto code = QrImage::of(link);
        return (code ? code->terminal() : "") + link + "\n\n" + pairing.at("text").get<std::string>()
            + "\nFor another computer: pelorin-viewer '" + link + "'\n" + readableReview(pairing);
    });
}

std::optional<std::string> PairingCommands::readableDevices(const std::string& reply)
{
    return readable(reply, [](const json& report) {
        constexpr auto row = "{:<20}  {:<16}  {:<10}  {}\n";
        const json& devices = report.at("devices");
        if (devices.empty()) return std::string("no phone is paired\n");
        std::string table = fmt::format(row, "ID", "PAIRED (UTC)", "THROUGH", "NAME");
        for (const json& device : devices)
            table += fmt::format(row, device.at("id").get<std::string>(),
                readableTime(device.at("pairedAt").get<std::string>()),
                device.at("through").get<std::string>(), device.at("name").get<std::string>());
        return table;
    });
}

std::optional<std::string> PairingCommands::readableRemoval(const std::string& reply)
{
    return readable(reply,
        [](const json& report) { return "removed " + report.at("removed").get<std::string>() + "\n"; });
}

std::optional<std::string> PairingCommands::linkIn(const std::string& pairReply)
{
    return readable(pairReply, [](const json& pairing) { return pairing.at("link").get<std::string>(); });
}

} // namespace pelorin
