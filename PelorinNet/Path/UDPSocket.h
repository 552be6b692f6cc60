#pragma once

#include "PelorinNet/NetError.h"
#include "PelorinNet/Queue/SerialQueue.h"
#include "PelorinNet/Stun/SocketAddress.h"

#include <memory>

namespace pelorin {

// The system's ways to handle many datagrams at once that a socket may use, where it has them.
struct UDPMechanisms {
    bool batches = true; // many in one call: recvmmsg, sendmmsg
    bool merging = true; // a run of equal size as one, on its way in (GRO) and out (GSO)
};

// A non-blocking IPv4 UDP socket that takes and gives datagrams in batches (recvmmsg, sendmmsg, and where the
// kernel has them, GRO and GSO). Everything on the queue given, close apart. Owned by who opened it.
class UDPSocket {
public:
    // host is an IPv4 literal, port 0 lets the system choose. The errors are "socket: errno <n>" and
    // "bind <host>:<port>: errno <n>".
    static Result<std::unique_ptr<UDPSocket>, NetError> open(
        const std::string& host, std::uint16_t port, QueueRef queue, UDPMechanisms allowed = {});
    virtual ~UDPSocket() = default; // closes

    // Each datagram with its source; the bytes stay valid until onBatchEnd of the same batch has returned.
    std::function<void(ByteView datagram, const SocketAddress& source)> onReceive;
    std::function<void()> onBatchEnd; // no more datagrams wait for now: time to flush what they caused
    // The network says that peer can't be reached: an ICMP error, or no route when sending. errno tells
    // which. Never from within a call; once for the errors that came together.
    std::function<void(const SocketAddress& peer, int errorNumber)> onUnreachable;

    // Sends one datagram now. UDP's rule: what the kernel does not take is lost.
    virtual void send(ByteView datagram, const SocketAddress& to) = 0;
    // Puts one datagram, whose bytes are head, body and tail one after another, behind the ones not flushed
    // yet. The bytes must stay valid until flush, which sends them all, runs of equal size and peer as one.
    virtual void enqueue(ByteView head, ByteView body, ByteView tail, const SocketAddress& to) = 0;
    virtual void flush() = 0;

    virtual std::uint64_t lostSends() const = 0; // datagrams that the kernel did not take
    virtual const SocketAddress& localAddress() const = 0; // with the real port
    virtual void close() = 0; // idempotent, from any thread; nothing is received or sent afterwards
};

} // namespace pelorin
