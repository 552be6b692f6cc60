#pragma once

#include <functional>
#include <string>

namespace pelorin {

// Where the nodes of one service meet: messages to subjects, and who has subscribed to a subject hears them.
// Queue: the service's, for calls and callbacks; no call blocks, and nothing is called back from inside one.
// Owned by the program, and destroyed after the Service.
class Broker {
public:
    struct Message {
        std::string subject;
        std::string replyTo; // a subject, or empty
        std::string text;
    };

    virtual ~Broker() = default;

    // Out of reach at first. Whatever was under way when it is told that the broker is out of reach, or in
    // reach once more, may be lost; subscriptions are not.
    std::function<void(bool isInReach)> onState;
    std::function<void(const Message&)> onMessage; // of one sender to us: in order
    // Nobody subscribes to where a message was to go that bore this address.
    std::function<void(const std::string& replyTo)> onNobody;

    virtual void subscribe(const std::string& subject) = 0; // "a.b", or "a.>" for all below a; once each
    virtual void unsubscribe(const std::string& subject) = 0;
    // Not to ourselves. False when the broker is out of reach, or so much waits for it that it might as well
    // be.
    virtual bool publish(const std::string& subject, std::string text, const std::string& replyTo = {}) = 0;
};

} // namespace pelorin
