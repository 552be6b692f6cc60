#pragma once

#include "PelorinCore/Access/TailscaleStatus.h"
#include "PelorinHost/Platform/System.h"
#include "PelorinNet/Log.h"

#include <deque>
#include <map>
#include <memory>

namespace pelorin {

struct TailscaleCLIError {
    enum class Kind {
        failed, // exited with status
        notInstalled,
        timedOut,
        unreadable, // answered something that is no answer
        busy, // too many questions wait already
    };
    Kind kind = Kind::failed;
    int status = 0;
    std::string message = {};

    std::string description() const; // one line, for the log and for the phone that is refused
    bool operator==(const TailscaleCLIError&) const = default;
};

// Asks the Tailscale command-line tool. Whoever connects makes us ask who they are, so questions are bounded:
// the same one under way is asked once, few run at a time, a limited number waits, and an answer is
// remembered for a moment. Queue: its owner's; done comes there, never within the call, and may destroy us.
// An asker that lets go of its subscription hears nothing more. Owned by the HostServer.
class TailscaleCLI {
public:
    template <class T>
    using Done = std::move_only_function<void(Result<T, TailscaleCLIError>)>;

    TailscaleCLI(System& system, QueueRef queue); // system outlives every subscription
    ~TailscaleCLI();

    // The tool's standard output. The process ends with the subscription.
    [[nodiscard]] Subscription run(std::vector<std::string> arguments, Done<std::string> done);

    // Who is behind an address, of a peer or of this machine.
    [[nodiscard]] Subscription whois(const std::string& address, Done<TailscaleWhois> done);
    // This machine's name in the tailnet, "desk.tail1234.ts.net"; nothing when it has none.
    [[nodiscard]] Subscription ownDNSName(Done<std::optional<std::string>> done);
    // Where a peer is reached just now, "203.0.113.7:41641"; nothing while a relay carries it.
    [[nodiscard]] Subscription curAddrOf(const std::string& address, Done<std::optional<std::string>> done);

    static constexpr std::size_t maxProcesses = 4;
    static constexpr std::size_t maxWaiting = 32;
    static constexpr std::chrono::seconds rememberedFor{10};

private:
    struct Asker;
    struct Question {
        std::vector<std::shared_ptr<Asker>> askers;
        Subscription process; // empty while it waits for its turn
    };
    struct Remembered {
        TailscaleWhois whois;
        SteadyTime until;
    };

    void startWaiting();
    void answer(const IPAddress& address, const Result<std::string, TailscaleCLIError>& output);
    void remember(const IPAddress& address, const TailscaleWhois& whois);
    std::size_t runningCount() const { return questions.size() - waiting.size(); }

    System& system;
    const QueueRef queue;
    const Log log{"tailscale"};
    std::map<IPAddress, Question> questions;
    std::deque<IPAddress> waiting; // those of the questions that have no process yet, oldest first
    std::map<IPAddress, Remembered> remembered;
};

} // namespace pelorin
