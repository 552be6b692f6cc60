#pragma once

#include "PelorinCore/Wire/FrameCodec.h"

#include <chrono>
#include <deque>
#include <optional>

namespace pelorin::peers {

// The plainest possible phone: a blocking socket and the codec, for sending what no well-behaved phone would.
class RawPhone {
public:
    explicit RawPhone(std::uint16_t port); // on 127.0.0.1
    ~RawPhone();
    RawPhone(const RawPhone&) = delete;
    RawPhone& operator=(const RawPhone&) = delete;

    bool isConnected() const { return fd >= 0; }
    bool send(ByteView bytes); // false when the host has closed
    bool send(const Message& message) { return send(encodeFrame(message)); }
    bool sayHello(std::uint16_t version = protocolVersion, ClientCapabilities capabilities = {});
    void vanish(); // resets the connection

    // The next message of this kind; others are skipped. Nothing when the host closed or time ran out.
    template <class M>
    std::optional<M> wait(std::chrono::milliseconds within = std::chrono::seconds(20))
    {
        const auto deadline = std::chrono::steady_clock::now() + within;
        while (const auto message = next(deadline)) {
            if (const auto* wanted = std::get_if<M>(&*message)) return *wanted;
        }
        return std::nullopt;
    }
    bool waitForClose(std::chrono::milliseconds within = std::chrono::seconds(20));

private:
    std::optional<Message> next(std::chrono::steady_clock::time_point deadline);

    int fd = -1;
    bool isClosed = false;
    FrameDecoder decoder;
    std::deque<Message> received;
};

} // namespace pelorin::peers
