#pragma once

#include "PelorinRendezvous/Rate.h"

namespace pelorin {

// What the service bears of its peers. The first three can be set when it is started; the rest follows from
// the protocol.
struct Limits {
    int connectionsPerSource = 64; // open at once
    int requestsPerMinute = 30; // of phones and about status: of one source, and of phones for one host
    int registrationsPerMinute = 60; // of hosts: of one source; of one host as many as requests
    int connectsPerMinute() const { return 4 * (requestsPerMinute + registrationsPerMinute); } // TCP and TLS

    static constexpr std::size_t pendingPerHost = 8; // requests that the host has not answered
    static constexpr std::size_t unprovenMessage = 4 * 1024; // of a host that has not registered
    static constexpr std::size_t carriedObject = 60 * 1024; // leaves room for what we put around it

    // A path's set-up takes a dozen messages; a host may have many of them at once.
    static constexpr Rate phoneMessages{std::chrono::milliseconds(100), 100};
    static constexpr Rate hostMessages{std::chrono::milliseconds(10), 1000};

    static constexpr std::chrono::seconds opening{5}; // for the request, and then for the first message
    static constexpr std::chrono::seconds inquiry{2}; // about a host, among the nodes of a service
    static constexpr std::chrono::seconds answering{30}; // a host's, to a phone's request
    static constexpr std::chrono::seconds silence{60}; // four of the hosts' pings
    static constexpr std::chrono::seconds goodbye{2}; // until a peer that was told to go is cut off

    static constexpr std::size_t unsent = 256 * 1024; // then the peer is cut off
    // Carried traffic leaves room for our own words: a peer's sender is stopped before the peer is cut off.
    static constexpr std::size_t unsentCarried = 192 * 1024;
};

} // namespace pelorin
