#pragma once

#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinRendezvous/Cluster/Broker.h"

#include <algorithm>
#include <set>
#include <vector>

namespace pelorin {

// A broker that loses and finds its nodes as the test says, on the test's time.
class ScriptedBroker {
public:
    // One node's connection to it.
    class Port final : public Broker {
    public:
        explicit Port(ScriptedBroker& newExchange) : exchange(newExchange) { exchange.ports.insert(this); }
        ~Port() override { exchange.ports.erase(this); }

        void reach(bool nowInReach)
        {
            isInReach = nowInReach;
            post([nowInReach](Port& port) {
                if (port.onState) port.onState(nowInReach);
            });
        }
        void subscribe(const std::string& subject) override { subjects.insert(subject); }
        void unsubscribe(const std::string& subject) override { subjects.erase(subject); }
        bool publish(const std::string& subject, std::string text, const std::string& replyTo = {}) override
        {
            if (!isInReach || isFull) return false;
            exchange.carry(*this, {subject, replyTo, std::move(text)});
            return true;
        }

        QueueRef queue; // the node's, before anything is called
        bool isInReach = false;
        bool isFull = false; // takes nothing more
        std::set<std::string> subjects;

    private:
        friend class ScriptedBroker;
        bool hears(const std::string& subject) const
        {
            return isInReach && std::ranges::any_of(subjects, [&](const std::string& own) {
                return own.ends_with(".>") ? subject.starts_with(own.substr(0, own.size() - 1))
                                           : own == subject;
            });
        }
        void post(std::function<void(Port&)> work)
        {
            queue->post([this, work = std::move(work), alive = lifetime.watch()] {
                if (alive) work(*this);
            });
        }

        ScriptedBroker& exchange;
        Lifetime lifetime;
    };

    // From the test itself, as from a node that breaks the rules; from: none of the ports.
    void inject(Broker::Message message) { deliver(nullptr, std::move(message)); }

    std::vector<Broker::Message> carried;

private:
    void carry(Port& from, Broker::Message message)
    {
        carried.push_back(message);
        const std::string replyTo = message.replyTo;
        if (deliver(&from, std::move(message)) || replyTo.empty()) return;
        from.post([replyTo](Port& port) {
            if (port.onNobody) port.onNobody(replyTo);
        });
    }
    bool deliver(const Port* from, const Broker::Message& message)
    {
        bool isHeard = false;
        for (Port* const port : ports) {
            if (port == from || !port->hears(message.subject)) continue;
            isHeard = true;
            port->post([message](Port& hearing) {
                if (hearing.onMessage) hearing.onMessage(message);
            });
        }
        return isHeard;
    }

    std::set<Port*> ports;
};

} // namespace pelorin
