#include "PelorinNet/Path/NetworkWatch.h"

#include "PelorinNet/Log.h"

#include <cstring>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Duration settlingTime = 250ms; // a change of networks is a dozen messages

// Of IPv4 alone, as paths are. IPv6 routers repeat themselves every few minutes, and links report much that
// changes nothing.
constexpr unsigned groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;

int openNetlink()
{
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    Log("path").warning("changes of the network go unnoticed: {}", std::strerror(errno));
    if (fd >= 0) ::close(fd);
    return -1;
}

} // namespace

NetworkWatch::NetworkWatch(QueueRef newQueue) : queue(std::move(newQueue)), fd(openNetlink())
{
    if (fd >= 0) readable = queue->whenReadable(fd, [this] { drain(); });
}

NetworkWatch::~NetworkWatch()
{
    readable.cancel();
    if (fd >= 0) ::close(fd);
}

// What exactly it was doesn't matter, nor that some of it was lost when the buffer was full.
void NetworkWatch::drain()
{
    char message[8192];
    while (::recv(fd, message, sizeof message, 0) >= 0 || errno == ENOBUFS || errno == EINTR) {}
    settling = queue->after(settlingTime, [this] {
        if (onChange) onChange();
    });
}

} // namespace pelorin
