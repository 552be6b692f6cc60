#pragma once

#include "PelorinNet/Rendezvous/RendezvousSocket.h"

#include <deque>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {

// The rendezvous service as a test plays it: keeps the sockets that a host opens, what came over each, and
// says what the test wants said. Single thread.
class ScriptedService {
public:
    // One socket, as it looks from the service; it outlives the host's end.
    struct Line {
        std::string url;
        QueueRef queue;
        SteadyTime heard;
        std::vector<nlohmann::json> received;
        int pings = 0;
        bool answersPings = true;
        bool isClosed = false; // by the host
        std::deque<nlohmann::json> unclaimed;
        std::optional<NetError> failure;
        std::string awaited;
        RendezvousSocket::Received done; // while the host waits
        Subscription timeout;

        void say(nlohmann::json message)
        {
            heard = queue->now();
            if (done && message.contains(awaited))
                complete(std::move(message));
            else
                unclaimed.push_back(std::move(message));
        }
        void cut(const std::string& why)
        {
            failure = NetError{why};
            if (done) complete(std::unexpected(*failure));
        }
        void complete(Result<nlohmann::json, NetError> result)
        {
            timeout.cancel();
            queue->post([this, running = std::exchange(done, nullptr), result = std::move(result)] {
                if (!isClosed) running(result);
            });
        }
        std::vector<nlohmann::json> takeReceived() { return std::exchange(received, {}); }
    };

    RendezvousSocketMaker maker()
    {
        return [this](QueueRef queue, std::string url) {
            Line& line = *lines.emplace_back(std::make_unique<Line>());
            line.url = std::move(url);
            line.queue = std::move(queue);
            return std::make_unique<Socket>(line, unreachable);
        };
    }

    Line& line() { return *lines.back(); } // the latest
    std::vector<std::unique_ptr<Line>> lines;
    std::optional<NetError> unreachable; // why sockets don't open

private:
    struct Socket final : RendezvousSocket {
        Socket(Line& newLine, std::optional<NetError> newUnreachable)
            : line(newLine),
              unreachable(std::move(newUnreachable))
        {
        }
        ~Socket() override { close(); }
        void open(Opened opened) override
        {
            line.heard = line.queue->now();
            line.queue->post([this, opened = std::move(opened), &line = line] {
                if (line.isClosed) return;
                opened(unreachable ? Result<void, NetError>(std::unexpected(*unreachable))
                                   : Result<void, NetError>());
            });
        }
        void send(const nlohmann::json& object) override { line.received.push_back(object); }
        void ping() override
        {
            ++line.pings;
            if (line.answersPings) line.heard = line.queue->now();
        }
        void next(std::string key, std::optional<Duration> timeout, Received done) override
        {
            require(!line.done && !line.isClosed, "one wait at a time, at an open socket");
            line.awaited = std::move(key);
            line.done = std::move(done);
            if (timeout)
                line.timeout = line.queue->after(
                    *timeout, [this] { line.complete(std::unexpected(NetError{"timed out"})); });
            const auto found = std::ranges::find_if(
                line.unclaimed, [&](const auto& each) { return each.contains(line.awaited); });
            if (found != line.unclaimed.end()) {
                line.complete(std::move(*found));
                line.unclaimed.erase(found);
            } else if (line.failure) {
                line.complete(std::unexpected(*line.failure));
            }
        }
        SteadyTime lastReceived() const override { return line.heard; }
        void close() override
        {
            line.isClosed = true;
            line.timeout.cancel();
            line.done = nullptr;
        }

        Line& line;
        const std::optional<NetError> unreachable;
    };
};

} // namespace pelorin
