#pragma once

#include "PelorinCore/Wire/FrameCodec.h"
#include "PelorinNet/Channel/Channel.h"

#include <gtest/gtest.h>
#include <utility>

namespace pelorin::fakes {

// The phone's end of a channel: keeps every message of the host's, in order.
class FakePhone {
public:
    FakePhone(std::unique_ptr<Channel> newChannel, QueueRef queue) : channel(std::move(newChannel))
    {
        channel->onBytes = [this](ByteView bytes) {
            auto messages = decoder.feed(bytes);
            ASSERT_TRUE(messages) << "the host broke the protocol";
            for (auto& message : *messages) received.push_back(std::move(message));
        };
        channel->onClosed = [this](std::optional<NetError>) { isClosed = true; };
        channel->start(std::move(queue));
    }

    void send(const Message& message) { channel->send(encodeFrame(message)); }
    void send(Bytes bytes) { channel->send(std::move(bytes)); }
    void hello(ClientCapabilities capabilities = {}, std::uint16_t version = protocolVersion)
    {
        send(message::Hello{version, "phone", {1170, 2532, 3}, {}, capabilities});
    }
    void hangUp() { channel.reset(); }

    template <class T>
    std::vector<T> all() const
    {
        std::vector<T> found;
        for (const auto& message : received)
            if (const auto* match = std::get_if<T>(&message)) found.push_back(*match);
        return found;
    }
    template <class T>
    std::size_t count() const
    {
        return all<T>().size();
    }
    template <class T>
    T last() const
    {
        const auto found = all<T>();
        return found.empty() ? T{} : found.back();
    }

    std::vector<Message> received;
    bool isClosed = false;

private:
    std::unique_ptr<Channel> channel;
    FrameDecoder decoder;
};

} // namespace pelorin::fakes
