#include "PelorinNet/Path/DatagramCalls.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#ifdef __linux__
#include <linux/errqueue.h>
#include <netinet/udp.h>
#endif

namespace pelorin::datagramCalls {
namespace {

bool setOption(int fd, int level, int option, int value)
{
    return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
}

int receiveOne(int fd, Message& message)
{
    const ssize_t size = ::recvmsg(fd, &message.msg_hdr, 0);
    if (size < 0) return -1;
    message.msg_len = unsigned(size);
    return 1;
}

int sendOne(int fd, Message& message)
{
    return ::sendmsg(fd, &message.msg_hdr, 0) < 0 ? -1 : 1;
}

// As the batch calls do it: an error is told only when nothing came before it.
template <class Call>
int oneByOne(int fd, std::span<Message> messages, Call call)
{
    int count = 0;
    while (count < int(messages.size()) && call(fd, messages[std::size_t(count)]) > 0) ++count;
    return count > 0 ? count : -1;
}

} // namespace

int bufferSize(int fd, int option)
{
    int bytes = 0;
    socklen_t size = sizeof bytes;
    ::getsockopt(fd, SOL_SOCKET, option, &bytes, &size);
#ifdef __linux__
    return bytes / 2; // the kernel doubles it for its own needs
#else
    return bytes;
#endif
}

#ifdef __linux__

int open()
{
    return ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
}

UDPMechanisms enable(int fd, UDPMechanisms allowed)
{
    setOption(fd, IPPROTO_IP, IP_RECVERR, 1);
    const bool merges = allowed.merging && setOption(fd, IPPROTO_UDP, UDP_SEGMENT, 0) // none, but known
        && setOption(fd, IPPROTO_UDP, UDP_GRO, 1);
    return {allowed.batches, merges};
}

void setBufferSize(int fd, int option, int bytes)
{
    const int forced = option == SO_RCVBUF ? SO_RCVBUFFORCE : SO_SNDBUFFORCE;
    if (!setOption(fd, SOL_SOCKET, forced, bytes)) setOption(fd, SOL_SOCKET, option, bytes);
}

int receive(int fd, std::span<Message> messages, UDPMechanisms mechanisms)
{
    if (!mechanisms.batches) return oneByOne(fd, messages, receiveOne);
    const int count = ::recvmmsg(fd, messages.data(), unsigned(messages.size()), 0, nullptr);
    if (count < 0 && errno == ENOSYS) return oneByOne(fd, messages, receiveOne); // a sandbox's refusal
    return count;
}

int send(int fd, std::span<Message> messages, UDPMechanisms mechanisms)
{
    if (!mechanisms.batches || messages.size() == 1) return oneByOne(fd, messages, sendOne);
    const int count = ::sendmmsg(fd, messages.data(), unsigned(messages.size()), 0);
    if (count < 0 && errno == ENOSYS) return oneByOne(fd, messages, sendOne);
    return count;
}

std::optional<std::size_t> segmentSize(msghdr& message)
{
    for (auto* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_UDP || part->cmsg_type != UDP_GRO) continue;
        int size = 0;
        std::memcpy(&size, CMSG_DATA(part), sizeof size);
        if (size > 0) return std::size_t(size);
    }
    return std::nullopt;
}

void setSegmentSize(msghdr& message, std::span<std::uint8_t, controlSize> control, std::uint16_t size)
{
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(sizeof size);
    auto* const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = IPPROTO_UDP;
    part->cmsg_type = UDP_SEGMENT;
    part->cmsg_len = CMSG_LEN(sizeof size);
    std::memcpy(CMSG_DATA(part), &size, sizeof size);
}

std::optional<PeerError> takePeerError(int fd)
{
    PeerError result;
    alignas(cmsghdr) std::uint8_t control[256];
    std::uint8_t payload = 0; // of the datagram that failed: not needed
    iovec vector{&payload, sizeof payload};
    msghdr message{};
    message.msg_name = &result.peer;
    message.msg_namelen = sizeof result.peer;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (::recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return std::nullopt;
    for (auto* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_RECVERR) continue;
        sock_extended_err error{};
        std::memcpy(&error, CMSG_DATA(part), sizeof error);
        result.errorNumber = int(error.ee_errno);
    }
    return result;
}

#else

int open()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return fd;
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

UDPMechanisms enable(int, UDPMechanisms)
{
    return {false, false};
}

void setBufferSize(int fd, int option, int bytes)
{
    setOption(fd, SOL_SOCKET, option, bytes);
}

int receive(int fd, std::span<Message> messages, UDPMechanisms)
{
    return oneByOne(fd, messages, receiveOne);
}

int send(int fd, std::span<Message> messages, UDPMechanisms)
{
    return oneByOne(fd, messages, sendOne);
}

std::optional<std::size_t> segmentSize(msghdr&)
{
    return std::nullopt;
}

void setSegmentSize(msghdr&, std::span<std::uint8_t, controlSize>, std::uint16_t) {}

std::optional<PeerError> takePeerError(int)
{
    return std::nullopt;
}

#endif

} // namespace pelorin::datagramCalls
