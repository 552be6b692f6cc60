#include "PelorinHost/Session/SessionEnd.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin {
namespace {

SessionEnd told(EndKind kind, std::string reason, ErrorCode code, std::string text)
{
    return {kind, std::move(reason), message::Error{code, std::move(text)}};
}

std::string inMinutesOrSeconds(double seconds)
{
    if (seconds >= 60) return fmt::format("{} 分钟", static_cast<long long>(seconds / 60));
    return fmt::format("{} 秒", std::max(1LL, static_cast<long long>(seconds)));
}

} // namespace

SessionEnd SessionEnd::disconnected()
{
    return {EndKind::dropped, "client disconnected", {}};
}

SessionEnd SessionEnd::receiveFailed(const NetError& error)
{
    return {EndKind::dropped, "receive failed: " + error.description, {}};
}

SessionEnd SessionEnd::protocolError(const ProtocolError& error)
{
    return {EndKind::dropped, "protocol error: " + error.description(), {}};
}

SessionEnd SessionEnd::unexpected(MessageType type)
{
    return {EndKind::dropped, fmt::format("protocol error: unexpected {}", nameOf(type)), {}};
}

SessionEnd SessionEnd::silent()
{
    return {EndKind::dropped, "client stopped responding", {}};
}

SessionEnd SessionEnd::neverSaidHello()
{
    return {EndKind::dropped, "no hello in time", {}};
}

SessionEnd SessionEnd::tooManyWaiting()
{
    return {EndKind::dropped, "too many connections waiting for hello", {}};
}

SessionEnd SessionEnd::notReading(std::size_t unsentBytes)
{
    return {EndKind::dropped, fmt::format("client stopped reading, {} bytes unsent", unsentBytes), {}};
}

SessionEnd SessionEnd::byClient()
{
    return {EndKind::userEnded, "client ended the session", {}};
}

SessionEnd SessionEnd::idle(double limitSeconds)
{
    return told(EndKind::idle, "idle timeout", ErrorCode::idleTimeout,
        "超过 " + inMinutesOrSeconds(limitSeconds) + "没有操作，已自动断开");
}

SessionEnd SessionEnd::versionMismatch(std::uint16_t clientVersion)
{
    return told(EndKind::failed, fmt::format("client speaks protocol version {}", clientVersion),
        ErrorCode::versionMismatch,
        fmt::format(
            "主机协议版本是 v{}，客户端是 v{}，请把两边都更新到最新版", protocolVersion, clientVersion));
}

SessionEnd SessionEnd::permissionsMissing(const std::string& missing)
{
    return told(EndKind::failed, "permissions missing: " + missing, ErrorCode::permissionsMissing,
        "请在 Mac 上给 Pelorin Host 授予屏幕录制和辅助功能权限");
}

SessionEnd SessionEnd::pairingCodeExpired()
{
    return told(EndKind::failed, "pairing code expired or used", ErrorCode::unauthorized,
        "配对码已过期或已经用过。请在 Mac 菜单里重新点「配对新手机」再扫一次");
}

SessionEnd SessionEnd::onlyForPairing(MessageType type)
{
    return told(EndKind::failed, fmt::format("{} on a connection for pairing", nameOf(type)),
        ErrorCode::unauthorized, "这个连接只能用来配对，请先完成配对");
}

SessionEnd SessionEnd::paired(const std::string& name, const std::string& id)
{
    return {EndKind::paired, fmt::format("paired {} as {}", name, id), {}};
}

SessionEnd SessionEnd::captureStopped()
{
    return told(EndKind::failed, "屏幕采集已停止", ErrorCode::internalError, "屏幕采集已停止");
}

SessionEnd SessionEnd::captureNotStarted()
{
    return told(EndKind::failed, "无法开始屏幕采集", ErrorCode::internalError, "无法开始屏幕采集");
}

SessionEnd SessionEnd::replaced()
{
    return told(EndKind::replaced, "replaced by a new session", ErrorCode::replaced, "另一台设备已连接");
}

SessionEnd SessionEnd::onMac()
{
    return told(EndKind::endedOnMac, "disconnected on the Mac", ErrorCode::internalError, "已在 Mac 上断开");
}

SessionEnd SessionEnd::removed()
{
    return told(EndKind::endedOnMac, "the phone was removed on the Mac", ErrorCode::unauthorized,
        "这部手机没有和这台 Mac 配对（可能在 Mac 上被移除了），请重新配对");
}

} // namespace pelorin
