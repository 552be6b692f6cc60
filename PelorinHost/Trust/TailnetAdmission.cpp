#include "PelorinHost/Trust/TailnetAdmission.h"

#include "PelorinCore/Access/Tailnet.h"
#include "PelorinCore/Label.h"

#include <fmt/ranges.h>
#include <utility>

namespace pelorin {
namespace {

// What a caller hears before the first answer of Tailscale's.
constexpr const char* unknownSelf = "未确定（经 Tailscale 的连接会被拒绝）";

// The login of all devices that belong to a tag instead of a person. On a tagged machine it is our own as
// well, and would open the desktop to every other one.
constexpr const char* everyTaggedDevice = "tagged-devices";

std::string nameOf(const TailscaleWhois& whois)
{
    return asLabel(whois.nodeName.empty() ? whois.loginName : whois.nodeName);
}

} // namespace

TailnetAdmission::TailnetAdmission(System& system, QueueRef queue, const HostConfig& config)
    : tailscale(system, std::move(queue)),
      policy{{}, config.allowedNodeNames},
      configuredLoginNames(config.allowedLoginNames)
{
}

void TailnetAdmission::setOwnAddress(const std::optional<std::string>& address)
{
    // Another address may be another user's tailnet.
    if (address && address != ownAddress) {
        ownLoginName.reset();
        dnsName.reset();
        ownQuestion.cancel();
        nameQuestion.cancel();
        policy.allowedLoginNames.clear();
        ownAddress = address;
    }
    if (address && !ownLoginName && !ownQuestion) askWhoWeAre();
}

void TailnetAdmission::askWhoWeAre()
{
    ownQuestion
        = tailscale.whois(*ownAddress, [this](const Result<TailscaleWhois, TailscaleCLIError>& answer) {
              ownQuestion = {};
              learntOwn(answer);
          });
}

void TailnetAdmission::learntOwn(const Result<TailscaleWhois, TailscaleCLIError>& answer)
{
    if (!answer) {
        ownWhoisFailure = answer.error().description();
        log.warning("whois for own address failed: {}", ownWhoisFailure);
        if (std::exchange(reportedOwnWhoisFailure, true) || !onConnectionLog) return;
        return onConnectionLog(
            "whois for this Mac failed, so every connection is refused until it works: " + ownWhoisFailure);
    }
    ownLoginName = answer->loginName;
    policy.allowedLoginNames = configuredLoginNames;
    if (ownLoginName != everyTaggedDevice)
        policy.allowedLoginNames.insert(policy.allowedLoginNames.begin(), *ownLoginName);
    log.info("allowed logins: {}", fmt::join(policy.allowedLoginNames, ", "));
    nameQuestion = tailscale.ownDNSName([this](Result<std::optional<std::string>, TailscaleCLIError> name) {
        if (name) dnsName = std::move(*name);
    });
    if (onAllowedLogins) onAllowedLogins(policy.allowedLoginNames);
}

std::optional<std::string> TailnetAdmission::refusalWithoutAsking(const std::string& address) const
{
    if (!Tailnet::isTailnetAddress(address)) return "不是 Tailscale 地址";
    if (ownLoginName) return std::nullopt;
    return ownWhoisFailure.empty() ? unknownSelf : ownWhoisFailure;
}

Subscription TailnetAdmission::ask(const std::string& address, std::move_only_function<void(Verdict)> done)
{
    return tailscale.whois(address,
        [this, done = std::move(done)](
            const Result<TailscaleWhois, TailscaleCLIError>& answer) mutable { done(judge(answer)); });
}

TailnetAdmission::Verdict TailnetAdmission::judge(
    const Result<TailscaleWhois, TailscaleCLIError>& answer) const
{
    if (!answer) return std::unexpected(answer.error().description());
    if (policy.permits(*answer)) return nameOf(*answer);
    const std::string login = asLabel(answer->loginName);
    const std::string device
        = answer->nodeName.empty() ? std::string() : fmt::format("（{}）", asLabel(answer->nodeName));
    return std::unexpected(login + device + " 不在允许列表");
}

} // namespace pelorin
