#include "PelorinNet/Channel/TlsStreams.h"

#include <algorithm>
#include <openssl/bio.h>

namespace pelorin {
namespace {

TlsStreams& streamsOf(BIO* bio)
{
    return *static_cast<TlsStreams*>(BIO_get_data(bio));
}

int read(BIO* bio, char* to, int size)
{
    ByteView& incoming = streamsOf(bio).incoming;
    BIO_clear_retry_flags(bio);
    if (incoming.empty()) {
        BIO_set_retry_read(bio);
        return -1;
    }
    const ByteView taken = incoming.first(std::min(incoming.size(), static_cast<std::size_t>(size)));
    std::ranges::copy(taken, reinterpret_cast<std::uint8_t*>(to));
    incoming = incoming.subspan(taken.size());
    return static_cast<int>(taken.size());
}

int write(BIO* bio, const char* from, int size)
{
    Bytes& outgoing = streamsOf(bio).outgoing;
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(from); // else each byte is converted
    outgoing.insert(outgoing.end(), bytes, bytes + size);
    return size;
}

long control(BIO*, int command, long, void*)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

} // namespace

TlsStreams::Method TlsStreams::makeMethod()
{
    Method method(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "pelorin streams"), BIO_meth_free);
    require(method && BIO_meth_set_read(method.get(), read) && BIO_meth_set_write(method.get(), write)
            && BIO_meth_set_ctrl(method.get(), control),
        "out of memory");
    return method;
}

BIO* TlsStreams::makeBio(const BIO_METHOD* method)
{
    BIO* const bio = BIO_new(method);
    require(bio != nullptr, "out of memory");
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    return bio;
}

} // namespace pelorin
