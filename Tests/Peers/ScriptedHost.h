#pragma once

#include "PelorinCore/Wire/FrameCodec.h"
#include "PelorinNet/Channel/Channel.h"

#include <vector>

namespace pelorin::lab {

// The host's end of a channel, for tests of the phone's: says exactly what a test tells it to, keeps what the
// phone said, and answers pings unless told not to.
class ScriptedHost {
public:
    ScriptedHost(std::unique_ptr<Channel> newChannel, QueueRef queue) : channel(std::move(newChannel))
    {
        queue->post([this, queue] {
            channel->onBytes = [this](ByteView bytes) { received(bytes); };
            channel->onClosed = [this](std::optional<NetError>) { isClosed = true; };
            channel->start(queue);
        });
    }

    void say(const Message& message) { say(encodeFrame(message)); }
    void say(Bytes bytes) { channel->send(std::move(bytes)); }
    void hangUp() { channel.reset(); }

    template <class Kind>
    std::vector<Kind> all() const
    {
        std::vector<Kind> found;
        for (const Message& message : heard)
            if (const auto* kind = std::get_if<Kind>(&message)) found.push_back(*kind);
        return found;
    }

    std::vector<Message> heard;
    bool isClosed = false; // by the phone
    bool answersPings = true;

private:
    void received(ByteView bytes)
    {
        auto messages = decoder.feed(bytes);
        for (Message& message : messages.value()) { // throws at what no phone may send
            if (const auto* ping = std::get_if<message::Ping>(&message); ping && answersPings)
                say(message::Pong{ping->id, ping->sentMicros});
            heard.push_back(std::move(message));
        }
    }

    std::unique_ptr<Channel> channel;
    FrameDecoder decoder;
};

} // namespace pelorin::lab
