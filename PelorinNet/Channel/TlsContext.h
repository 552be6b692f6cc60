#pragma once

#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TlsStreams.h"

struct ssl_ctx_st;

namespace pelorin {

// What the channels of one end have in common: the keys, and the rules of the protocol in the library's form.
// Never changes, so channels on any queue share it.
class TlsContext final : public PelorinTLS::ServerParameters {
public:
    enum class Role { server, client };
    // The keys that a server accepts, or the one that a client proves.
    TlsContext(Role newRole, std::vector<PelorinTLS::Key> newKeys);
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    ssl_ctx_st* handle() const { return context.get(); }
    const bio_method_st* streamsMethod() const { return method.get(); }
    // The key of that identity, or nothing; in a time that does not tell how much of an identity fits.
    const PelorinTLS::Key* find(std::string_view identity) const;
    const PelorinTLS::Key& clientKey() const { return keys.front(); }

    const Role role;

private:
    const std::vector<PelorinTLS::Key> keys;
    const TlsStreams::Method method = TlsStreams::makeMethod();
    const std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context;
};

} // namespace pelorin
