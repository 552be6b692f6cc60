#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/OpenSsl.h"

struct bio_st;
struct bio_method_st;

namespace pelorin {

// Where the TLS library reads from and writes to: it takes straight from what the transport received, and
// adds to what the transport is to send, with no copy in between.
struct TlsStreams {
    ByteView incoming; // from the peer, not yet read
    Bytes outgoing; // for the peer

    // In the library's form. The method must outlive every BIO made with it, the streams theirs.
    using Method = std::unique_ptr<bio_method_st, void (*)(bio_method_st*)>;
    static Method makeMethod();
    bio_st* makeBio(const bio_method_st* method);
};

} // namespace pelorin
