#include "PelorinNet/Path/StunBinder.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Retransmission::Delays delays{500ms, 500ms, 500ms, 1500ms};

} // namespace

void StunBinder::binding(UDPSocket& from, const SocketAddress& server, Done done)
{
    queue->assertCurrent();
    StunMessage request;
    request.transactionID = StunMessage::newTransactionID();
    Pending& waiting = pending[request.transactionID];
    waiting.done = std::move(done);
    waiting.request = std::make_unique<Retransmission>(
        queue, delays, [&from, server, bytes = request.serialize()] { from.send(bytes, server); },
        [this, server, id = request.transactionID] {
            finish(id, std::unexpected(NetError{"STUN Binding to " + server.text() + " timed out"}));
        });
}

bool StunBinder::handle(ByteView datagram)
{
    queue->assertCurrent();
    const auto response = StunMessage::parse(datagram);
    if (!response || response->method != StunMessage::Method::binding) return false;
    const bool isSuccess = response->messageClass == StunMessage::Class::success;
    if (!isSuccess && response->messageClass != StunMessage::Class::error) return false;
    if (!pending.contains(response->transactionID)) return false;
    // A server that refuses may be the next one behind the same address; only success is an answer.
    if (!isSuccess) return true;
    if (const auto address = response->xorAddress(StunMessage::AttributeType::xorMappedAddress))
        finish(response->transactionID, *address);
    else
        finish(response->transactionID,
            std::unexpected(NetError{"Binding response without XOR-MAPPED-ADDRESS"}));
    return true;
}

void StunBinder::finish(const StunMessage::TransactionID& id, Result<SocketAddress, NetError> result)
{
    const auto finished = pending.extract(id);
    finished.mapped().done(std::move(result));
}

} // namespace pelorin
