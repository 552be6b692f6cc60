// What a service's nodes hear from the broker: what is read reads the same once written anew.

#include "PelorinRendezvous/Cluster/NodeMessage.h"

using namespace pelorin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto message = NodeMessage::parse(text)) {
        const std::string written = NodeMessage::write(*message);
        const auto again = NodeMessage::parse(written);
        require(again && again->index() == message->index(), "a message stays what it is");
        require(NodeMessage::write(*again) == written, "and says the same");
    }
    if (const auto address = NodeAddress::parse(text)) {
        require(address->subject() == text, "an address is its subject");
        require(NodeAddress::parseSender(address->subjectOfLastWord()) == address, "whatever the word");
    }
    if (const auto hostID = NodeSubject::hostIn(text))
        require(NodeSubject::ofHost(*hostID) == text, "a host's subject is its own");
    return 0;
}
