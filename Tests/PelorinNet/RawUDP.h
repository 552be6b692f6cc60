#pragma once

#include "PelorinNet/Stun/SocketAddress.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace pelorin {

// A peer with nothing of ours in it: a plain UDP socket on the loopback interface.
class RawUDP {
public:
    struct Datagram {
        Bytes bytes;
        SocketAddress source;
    };

    explicit RawUDP(std::array<std::uint8_t, 4> host = {127, 0, 0, 1}, std::uint16_t port = 0)
        : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        const int room = 4 << 20;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        auto wanted = system(SocketAddress::ipv4(host, port));
        EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&wanted), sizeof wanted), 0);
        socklen_t size = sizeof wanted;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&wanted), &size);
        address = portable(wanted);
    }
    ~RawUDP() { close(); }
    RawUDP(const RawUDP&) = delete;
    RawUDP& operator=(const RawUDP&) = delete;

    void send(ByteView bytes, const SocketAddress& to) const
    {
        const auto target = system(to);
        ::sendto(
            fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    }
    // What has arrived by now; the loopback interface delivers within the sender's call.
    std::vector<Datagram> receive() const
    {
        std::vector<Datagram> all;
        Bytes buffer(65'536);
        sockaddr_in source{};
        for (;;) {
            socklen_t size = sizeof source;
            const ssize_t count = ::recvfrom(
                fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&source), &size);
            if (count < 0) return all;
            all.push_back({Bytes(buffer.begin(), buffer.begin() + count), portable(source)});
        }
    }
    bool waitReadable(int milliseconds) const
    {
        pollfd polled{fd, POLLIN, 0};
        return ::poll(&polled, 1, milliseconds) > 0;
    }
    void close()
    {
        if (fd >= 0) ::close(std::exchange(fd, -1));
    }

    // The descriptor that is bound to an address of ours, whoever in this process holds it.
    static int descriptorOf(const SocketAddress& bound)
    {
        for (int candidate = 0; candidate < 1'024; ++candidate) {
            sockaddr_in own{};
            socklen_t size = sizeof own;
            if (::getsockname(candidate, reinterpret_cast<sockaddr*>(&own), &size) == 0
                && own.sin_family == AF_INET && portable(own) == bound)
                return candidate;
        }
        return -1;
    }
    static SocketAddress portable(const sockaddr_in& from)
    {
        std::array<std::uint8_t, 4> host;
        std::memcpy(host.data(), &from.sin_addr, host.size());
        return SocketAddress::ipv4(host, ntohs(from.sin_port));
    }
    static sockaddr_in system(const SocketAddress& from)
    {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_port = htons(from.port);
        std::memcpy(&result.sin_addr, from.host().data(), sizeof result.sin_addr);
        return result;
    }

    SocketAddress address;
    int fd;
};

} // namespace pelorin
