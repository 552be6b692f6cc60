#include "Tests/Lab/Flood.h"

#include "PelorinNet/Path/ConnectivityCheck.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;

constexpr int portCount = 64;
constexpr auto burstPeriod = 1ms;

std::vector<Bytes> payloads()
{
    std::vector<Bytes> all;
    for (int i = 0; i < portCount; i += 2) {
        all.emplace_back(200, std::uint8_t(0x40 + i)); // as QUIC begins
        all.push_back(ConnectivityCheck::request(
            PathCredentials::random(), PathCredentials::random(), StunMessage::newTransactionID()));
    }
    return all;
}

int socketTo(const SocketAddress& to)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(to.port);
    std::ranges::copy(to.host(), reinterpret_cast<std::uint8_t*>(&address.sin_addr));
    require(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
    return fd;
}

// How many of that many the kernel took.
int sendMany(int fd, const Bytes& payload, int many)
{
    iovec part{const_cast<std::uint8_t*>(payload.data()), payload.size()};
    std::vector<mmsghdr> messages(static_cast<std::size_t>(many));
    for (auto& message : messages) {
        message.msg_hdr.msg_iov = &part;
        message.msg_hdr.msg_iovlen = 1;
    }
    return std::max(0, ::sendmmsg(fd, messages.data(), static_cast<unsigned>(many), 0));
}

} // namespace

Flood::Flood(const NetworkNamespace& from, const SocketAddress& to, int perSecond)
    : thread([this, &from, to, perSecond] { from.run([&] { run(to, perSecond); }); })
{
}

Flood::~Flood()
{
    isOver = true;
    thread.join();
}

void Flood::run(const SocketAddress& to, int perSecond)
{
    const auto contents = payloads();
    std::vector<int> sockets;
    for (int i = 0; i < portCount; ++i) sockets.push_back(socketTo(to));
    const int perBurst = perSecond / 1000;
    auto due = std::chrono::steady_clock::now();
    for (std::size_t i = 0; !isOver; i = (i + 1) % portCount) {
        count += static_cast<std::uint64_t>(sendMany(sockets[i], contents[i], perBurst));
        std::this_thread::sleep_until(due += burstPeriod);
    }
    for (const int fd : sockets) ::close(fd);
}

} // namespace pelorin::lab
