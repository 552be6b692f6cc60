#pragma once

#include "PelorinCore/Pairing/PairingLink.h"
#include "PelorinCore/Wire/FrameCodec.h"
#include "PelorinPhone/Pairing/SecureConnect.h"

namespace pelorin {

// Redeems a pairing link: connects with its one-time key, asks to be paired and brings back what the host
// issued. Queue: the one given. Owned by whoever wants to pair; may be destroyed at any moment.
class PairingExchange {
public:
    struct Failure {
        enum class Kind {
            cannotConnect,
            refused, // by the host: its own words, or that it does not know the link's key
            lost, // the connection broke, or what is there is no host
        };
        Kind kind = Kind::lost;
        std::string text; // for people
    };

    // A host may need up to 5 s to listen with a key that is new to it: so long a refused key is tried again,
    // and whatever happens while its listener is replaced. Seldom, since hosts turn away who fails too often.
    static constexpr std::chrono::seconds keyPatience{6};
    static constexpr std::chrono::seconds retryPause{3};

    // connectTo is called for every try; deviceName is what the host will call us.
    PairingExchange(QueueRef queue, ConnectTo connectTo, PairingLink link, std::string deviceName);
    ~PairingExchange();

    std::function<void(Result<PairedHost, Failure>)> onDone; // on the queue, once; may destroy us

    void start();

private:
    void attempt();
    void connected(Result<std::unique_ptr<Channel>, NetError> made);
    void received(ByteView bytes);
    void closed(const std::optional<NetError>& error);
    void answered(const message::PairResult& result);
    bool triesAgain();
    void fail(Failure::Kind kind, std::string text);
    void finish(Result<PairedHost, Failure> result);

    QueueRef queue;
    PairingLink link;
    std::string deviceName;
    Connect connect;
    SteadyTime patientUntil;
    bool wasKeyRefused = false;
    Subscription connecting;
    std::unique_ptr<Channel> channel;
    FrameDecoder decoder;
    Subscription timer; // the pause before the next try, then the time for the answer
    Lifetime lifetime;
};

} // namespace pelorin
