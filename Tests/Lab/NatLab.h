#pragma once

#include "Tests/Lab/NatRules.h"
#include "Tests/Lab/TurnServer.h"
#include "Tests/Lab/Wire.h"

#include <gtest/gtest.h>

namespace pelorin::lab {

// An internet of this machine's own: two relays in its middle, and around it machines, each behind a router
// that translates addresses as its kind says, at the end of a long wire. All in network namespaces; the real
// network is left alone, and everything goes with the object. Needs root. Destroyed before the thread that
// made it ends.
class NatLab {
public:
    // A network behind a router, and the wire from that to the internet.
    class Site {
    public:
        NatKind kind() const { return rules.kind; }
        const std::string& outerAddress() const { return rules.outerAddress; }
        Wire& wire() { return cable; }
        const NetworkNamespace& router() const { return gateway; }

        // The router forgets who has sent what, and gives other outer ports from now on: what is called NAT
        // rebinding.
        void forgetMappings();
        // The provider gives another outer address; connections over the old one are gone.
        void changeOuterAddress();

    private:
        friend class NatLab;
        Site(const NetworkNamespace& internet, NatKind kind, int number);
        void apply() const;

        NetworkNamespace gateway;
        Wire cable;
        NatRules rules;
        std::string spareAddress;
        int machines = 0;
    };
    struct Machine {
        Site& site;
        std::string address; // as its own interface says
        NetworkNamespace network;

        std::vector<std::string> inside(std::vector<std::string> command) const
        {
            return network.inside(std::move(command));
        }
    };

    NatLab();
    ~NatLab();

    Site& addSite(NatKind kind);
    Machine& addMachine(Site& site);
    Machine& addMachine(NatKind kind) { return addMachine(addSite(kind)); } // behind a router of its own

    // Of every wire between a site and the internet.
    void setQuality(const Wire::Quality& quality);

    static constexpr int relayCount = 2;
    static SocketAddress relayAddress(int relay); // serves STUN as well
    void startRelay(int relay);
    void killRelay(int relay); // its machine says that nobody listens there
    void freezeRelay(int relay); // silent, though its socket is there
    TurnServer& relay(int relay) { return *relays[relay]; }

    // Two addresses of the internet where nobody is, for programs of tests.
    static constexpr const char* strangers[] = {"198.51.100.1", "198.51.100.2"};
    const NetworkNamespace& internet() const { return middle; }

private:
    NetworkNamespace middle;
    std::unique_ptr<TurnServer> relays[relayCount];
    std::vector<std::unique_ptr<Site>> sites;
    std::vector<std::unique_ptr<Machine>> machines;
};

// For the start of a test that can't run without a lab.
#define PELORIN_SKIP_WITHOUT_NETWORKS()                                                                      \
    if (const auto refusal = pelorin::lab::NetworkNamespace::refusal()) GTEST_SKIP() << *refusal

} // namespace pelorin::lab
