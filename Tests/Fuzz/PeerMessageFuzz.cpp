// Messages to the rendezvous service from anybody: what is read is passed on as JSON that reads as the same.

#include "PelorinCore/Utf8.h"
#include "PelorinRendezvous/PeerMessage.h"

#include <nlohmann/json.hpp>

namespace {
using namespace pelorin;
using nlohmann::json;

void passOn(const std::string& message, const char* key, json::value_t kind)
{
    require(isUtf8(message), "what is passed on is text");
    const json read = json::parse(message, nullptr, false);
    require(read.is_object() && read.contains("type") && read.contains(key), "what is passed on is whole");
    require(read.at(key).type() == kind, "what is passed on is of its kind");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto message = PeerMessage::fromHost(text)) {
        if (const auto* accept = std::get_if<PeerMessage::Accept>(&*message))
            passOn(ToPeer::accept(accept->response), "response", json::value_t::object);
        if (const auto* reject = std::get_if<PeerMessage::Reject>(&*message))
            passOn(ToPeer::reject(reject->reason), "reason", json::value_t::string);
        if (const auto* signal = std::get_if<PeerMessage::Signal>(&*message))
            passOn(ToPeer::signalFromHost(signal->data), "data", json::value_t::object);
    }
    if (const auto message = PeerMessage::fromPhone(text)) {
        if (const auto* connect = std::get_if<PeerMessage::Connect>(&*message))
            passOn(
                ToPeer::connect("session", connect->request, std::nullopt), "request", json::value_t::object);
        if (const auto* signal = std::get_if<PeerMessage::Signal>(&*message))
            passOn(ToPeer::signalFromPhone("session", signal->data), "data", json::value_t::object);
    }
    return 0;
}
