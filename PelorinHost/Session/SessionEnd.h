#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinCore/Wire/ProtocolError.h"
#include "PelorinNet/NetError.h"

#include <optional>

namespace pelorin {

enum class EndKind { dropped, userEnded, idle, failed, replaced, endedOnMac, paired };

// How a session ends: what kind of end, the reason for log and menu, and what the phone is told, if anything.
struct SessionEnd {
    EndKind kind = EndKind::dropped;
    std::string reason;
    std::optional<message::Error> farewell;

    static SessionEnd disconnected();
    static SessionEnd receiveFailed(const NetError& error);
    static SessionEnd protocolError(const ProtocolError& error);
    static SessionEnd unexpected(MessageType type); // at this point of the conversation
    static SessionEnd silent();
    static SessionEnd neverSaidHello();
    static SessionEnd tooManyWaiting();
    static SessionEnd notReading(std::size_t unsentBytes);
    static SessionEnd byClient();
    static SessionEnd idle(double limitSeconds);
    static SessionEnd versionMismatch(std::uint16_t clientVersion);
    static SessionEnd permissionsMissing(const std::string& missing);
    static SessionEnd pairingCodeExpired();
    static SessionEnd onlyForPairing(MessageType type); // was asked of a connection for pairing
    static SessionEnd paired(const std::string& name, const std::string& id);
    static SessionEnd captureStopped();
    static SessionEnd captureNotStarted();
    static SessionEnd replaced();
    static SessionEnd onMac();
    static SessionEnd removed(); // the phone is not among the paired ones any more
};

} // namespace pelorin
