#pragma once

#include "PelorinNet/Path/UDPSocket.h"

#include <netinet/in.h>
#include <optional>
#include <span>
#include <sys/socket.h>

// The calls for UDP that systems differ in. Linux takes many datagrams in one call and cuts or joins runs of
// them; elsewhere, or where it is refused, the plain calls do the same work one by one.
namespace pelorin::datagramCalls {

#ifdef __linux__
using Message = mmsghdr;
#else
struct Message {
    msghdr msg_hdr;
    unsigned msg_len;
};
#endif

constexpr std::size_t mostSegments = 64; // in one merged message, as older kernels limit it
constexpr std::size_t largestMessage = 65'507; // bytes of UDP payload in an IPv4 packet
constexpr std::size_t controlSize = 64; // bytes of room for what a message says beside its payload

int open(); // a non-blocking IPv4 socket that no child process inherits; negative with errno set
// Asks for what is allowed, and for ICMP errors with the peer they concern. Returns what there is.
UDPMechanisms enable(int fd, UDPMechanisms allowed);
void setBufferSize(int fd, int option, int bytes); // SO_RCVBUF or SO_SNDBUF, beyond the limit if privileged
int bufferSize(int fd, int option); // bytes of payload, as asked for

// How many messages from the front were received or sent, at least one; negative with errno set if none.
int receive(int fd, std::span<Message> messages, UDPMechanisms mechanisms);
int send(int fd, std::span<Message> messages, UDPMechanisms mechanisms);

// The size of each datagram of a run that arrived as one; nothing for a single datagram.
std::optional<std::size_t> segmentSize(msghdr& message);
// Makes of a message, whose room for control is given, a run that the kernel cuts into datagrams.
void setSegmentSize(msghdr& message, std::span<std::uint8_t, controlSize> control, std::uint16_t size);

struct PeerError {
    sockaddr_in peer{};
    int errorNumber = 0;
};
// The next ICMP error that waits. Taking it clears what later calls would fail with.
std::optional<PeerError> takePeerError(int fd);

} // namespace pelorin::datagramCalls
