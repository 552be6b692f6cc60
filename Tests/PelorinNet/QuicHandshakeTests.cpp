// Who gets in over QUIC, and that nobody else does.
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PathChannel.h"
#include "PelorinNet/Channel/QuicTls.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <gmock/gmock.h>
#include <gnutls/x509.h>

using namespace pelorin;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Key = GnutlsHandle<gnutls_x509_privkey_t, gnutls_x509_privkey_deinit>;
using Certificate = GnutlsHandle<gnutls_x509_crt_t, gnutls_x509_crt_deinit>;

// A key and a certificate of it that no end of ours would make.
struct Foreign {
    Key key;
    Bytes certificate; // DER
};

struct Validity {
    std::chrono::hours from{-24}, to{24}; // of now
};

Foreign foreign(gnutls_pk_algorithm_t algorithm, unsigned bits, Key key = {}, Validity validity = {})
{
    if (!key) {
        gnutls_x509_privkey_t made = nullptr;
        EXPECT_EQ(gnutls_x509_privkey_init(&made), 0);
        key.reset(made);
        EXPECT_EQ(gnutls_x509_privkey_generate(made, algorithm, bits, 0), 0);
    }
    gnutls_x509_crt_t made = nullptr;
    EXPECT_EQ(gnutls_x509_crt_init(&made), 0);
    const Certificate certificate(made);
    const std::time_t now = std::time(nullptr);
    const auto seconds = [](std::chrono::hours hours) { return std::chrono::seconds(hours).count(); };
    EXPECT_EQ(gnutls_x509_crt_set_version(made, 3), 0);
    EXPECT_EQ(gnutls_x509_crt_set_serial(made, "\x01", 1), 0);
    EXPECT_EQ(gnutls_x509_crt_set_dn(made, "CN=somebody else", nullptr), 0);
    EXPECT_EQ(gnutls_x509_crt_set_activation_time(made, now + seconds(validity.from)), 0);
    EXPECT_EQ(gnutls_x509_crt_set_expiration_time(made, now + seconds(validity.to)), 0);
    EXPECT_EQ(gnutls_x509_crt_set_key(made, key.get()), 0);
    EXPECT_EQ(gnutls_x509_crt_sign2(made, made, key.get(), GNUTLS_DIG_SHA512, 0), 0);
    gnutls_datum_t der{};
    EXPECT_EQ(gnutls_x509_crt_export2(made, GNUTLS_X509_FMT_DER, &der), 0);
    Foreign result{std::move(key), Bytes(der.data, der.data + der.size)};
    gnutls_free(der.data);
    return result;
}

Key keyOf(const DeviceIdentity& identity)
{
    const ByteView bytes = identity.secIdentity().privateKey.view();
    const auto part = [&](std::size_t i) {
        return gnutls_datum_t{const_cast<std::uint8_t*>(bytes.data()) + 1 + 32 * i, 32};
    };
    const gnutls_datum_t x = part(0), y = part(1), scalar = part(2);
    gnutls_x509_privkey_t made = nullptr;
    EXPECT_EQ(gnutls_x509_privkey_init(&made), 0);
    EXPECT_EQ(gnutls_x509_privkey_import_ecc_raw(made, GNUTLS_ECC_CURVE_SECP256R1, &x, &y, &scalar), 0);
    return Key(made);
}

QuicCredentials emptyCredentials()
{
    gnutls_certificate_credentials_t made = nullptr;
    EXPECT_EQ(gnutls_certificate_allocate_credentials(&made), 0);
    return QuicCredentials(made);
}

// What a rogue shows, which need not be a chain, and the key that it proves, which need not be the chain's.
struct Shown {
    Shown(const Key& key, std::vector<Bytes> newChain) : chain(std::move(newChain))
    {
        gnutls_privkey_t made = nullptr;
        EXPECT_EQ(gnutls_privkey_init(&made), 0);
        proof.reset(made);
        EXPECT_EQ(gnutls_privkey_import_x509(made, key.get(), GNUTLS_PRIVKEY_IMPORT_COPY), 0);
        for (const Bytes& one : chain) {
            gnutls_pcert_st& certificate = certificates.emplace_back();
            EXPECT_EQ(gnutls_pubkey_init(&certificate.pubkey), 0); // what the library signs with
            EXPECT_EQ(gnutls_pubkey_import_privkey(certificate.pubkey, made, 0, 0), 0);
            certificate.type = GNUTLS_CRT_X509;
            certificate.cert = {const_cast<std::uint8_t*>(one.data()), unsigned(one.size())};
        }
    }
    ~Shown()
    {
        for (const auto& certificate : certificates) gnutls_pubkey_deinit(certificate.pubkey);
    }
    Shown(const Shown&) = delete;
    Shown& operator=(const Shown&) = delete;

    const std::vector<Bytes> chain;
    GnutlsHandle<gnutls_privkey_t, gnutls_privkey_deinit> proof;
    std::vector<gnutls_pcert_st> certificates;
};
std::unique_ptr<Shown> shown; // by the latest rogue; the library's callback has nowhere to keep it

int show(gnutls_session_t, const gnutls_cert_retr_st*, gnutls_pcert_st** certificates, unsigned* count,
    gnutls_ocsp_data_st**, unsigned*, gnutls_privkey_t* key, unsigned*)
{
    *certificates = shown->certificates.data();
    *count = unsigned(shown->certificates.size());
    *key = shown->proof.get();
    return 0;
}

QuicCredentials credentialsOf(const Key& key, std::vector<Bytes> chain)
{
    shown = std::make_unique<Shown>(key, std::move(chain));
    QuicCredentials credentials = emptyCredentials();
    gnutls_certificate_set_retrieve_function3(credentials.get(), show);
    return credentials;
}

class QuicHandshakes : public QuicTest {
protected:
    std::shared_ptr<QuicParameters> rogue(bool isServer, QuicCredentials credentials)
    {
        return std::make_shared<QuicParameters>(
            queues.makeQueue("rogue"), std::move(credentials), isServer, SecretBytes(Bytes(32)), acceptAll);
    }
    // A rogue phone at a host that knows its phone, or the other way round; whether the connection stands.
    bool letsIn(bool rogueIsServer, QuicCredentials credentials)
    {
        const Bytes known = (rogueIsServer ? hostIdentity : phoneIdentity)->fingerprint();
        const auto accept = [this, known](const Bytes& fingerprint) {
            ++asked;
            return fingerprint == known;
        };
        if (rogueIsServer)
            listen(rogue(true, std::move(credentials)));
        else
            listen(accept);
        phone = {};
        connect(listenerAddress(),
            rogueIsServer ? phoneParameters(accept) : rogue(false, std::move(credentials)));
        queues.advance(11s);
        const bool isIn = rogueIsServer ? phone.ready > 0 : !hosts.empty();
        if (!isIn) {
            EXPECT_EQ(phone.ready, 0);
            EXPECT_TRUE(hosts.empty());
            EXPECT_THAT(phone.closed.value_or(""), StartsWith("QUIC handshake failed: "));
        }
        hosts.clear();
        return isIn;
    }
    int asked = 0;
};

} // namespace

TEST_F(QuicHandshakes, letInWhoBothEndsAcceptAndSayWhoTheyAre)
{
    std::vector<std::pair<std::string, Bytes>> questions;
    std::vector<QueueRef> verifyQueues;
    struct NotedQueues : QueueMaker {
        NotedQueues(ManualQueues& newInner, std::vector<QueueRef>& newMade) : inner(newInner), made(newMade)
        {
        }
        QueueRef makeQueue(std::string label) override
        {
            return made.emplace_back(inner.makeQueue(std::move(label)));
        }
        ManualQueues& inner;
        std::vector<QueueRef>& made;
    } maker{queues, verifyQueues};
    const auto note = [&](const Bytes& fingerprint) {
        for (const auto& queue : verifyQueues)
            if (queue->isCurrent()) questions.emplace_back(queue->label(), fingerprint);
        return true;
    };
    listen(PelorinQUIC::parameters(maker, *hostIdentity, true, note));
    connect(listenerAddress(), PelorinQUIC::parameters(maker, *phoneIdentity, false, note));
    auto& stream = phone.open();
    EXPECT_FALSE(phone.connection->peerFingerprint());
    EXPECT_FALSE(PelorinQUIC::peerFingerprint(*stream.channel));
    queues.runReady();

    EXPECT_EQ(phone.ready, 1);
    ASSERT_EQ(hosts.size(), 1u);
    EXPECT_EQ(questions,
        (std::vector<std::pair<std::string, Bytes>>{{"dev.pelorin.quic.verify", hostIdentity->fingerprint()},
            {"dev.pelorin.quic.verify", phoneIdentity->fingerprint()}}));
    EXPECT_EQ(phone.connection->peerFingerprint(), hostIdentity->fingerprint());
    EXPECT_EQ(host().connection->peerFingerprint(), phoneIdentity->fingerprint());
    EXPECT_EQ(PelorinQUIC::peerFingerprint(phoneStream()), hostIdentity->fingerprint());
    EXPECT_EQ(PelorinQUIC::peerFingerprint(hostStream()), phoneIdentity->fingerprint());
    EXPECT_FALSE(PelorinQUIC::peerFingerprint(*LoopbackPair::make({}).first));
    const auto label = std::make_shared<PathLabel>("direct");
    auto described = onPath(std::move(host().streams.at(0)->channel), label, "dev-1");
    EXPECT_EQ(PelorinQUIC::peerFingerprint(*described), phoneIdentity->fingerprint());
    host().streams.at(0)->channel = std::move(described);
    EXPECT_EQ(phoneStream().remoteAddress(), "127.0.0.1");
    EXPECT_EQ(phoneStream().pathDescription(), "quic " + listenerAddress().text());
    EXPECT_EQ(host().connection->remoteAddress().hostText(), "127.0.0.1");
}

TEST_F(QuicHandshakes, refuseWhoEitherEndDoesNotAccept)
{
    const struct {
        const char* name;
        PelorinQUIC::Accept accept;
    } rows[] = {
        {"no", [](const Bytes&) { return false; }},
        {"a throw", [](const Bytes&) -> bool { throw std::runtime_error("no answer"); }},
        {"nobody to ask", {}},
    };
    for (const auto& [name, accept] : rows)
        for (const bool hostRefuses : {true, false}) {
            SCOPED_TRACE(std::string(name) + (hostRefuses ? " from the host" : " from the phone"));
            phone = {};
            listen(hostRefuses ? accept : acceptAll);
            connect(
                listenerAddress(), phoneParameters(hostRefuses ? PelorinQUIC::Accept(acceptAll) : accept));
            auto& stream = phone.open();
            queues.runReady(); // at once, not by a timeout
            EXPECT_EQ(phone.ready, 0);
            EXPECT_TRUE(hosts.empty());
            EXPECT_EQ(phone.closed,
                hostRefuses ? "QUIC handshake failed: the peer says TLS alert 42"
                            : "QUIC handshake failed: the peer is not who was expected");
            EXPECT_EQ(stream.closed, phone.closed);
            EXPECT_TRUE(stream.channel->hasFailedHandshake());
            EXPECT_FALSE(phone.connection->peerFingerprint());
        }
}

TEST_F(QuicHandshakes, waitForTheVerdictWithoutKeepingOthersWaiting)
{
    for (const bool hostWaits : {true, false}) {
        SCOPED_TRACE(hostWaits);
        ManualQueues slow; // nobody runs it until we do
        listen(PelorinQUIC::parameters(
            hostWaits ? static_cast<QueueMaker&>(slow) : queues, *hostIdentity, true, acceptAll));
        const auto asked = PelorinQUIC::parameters(
            hostWaits ? static_cast<QueueMaker&>(queues) : slow, *phoneIdentity, false, acceptAll);
        phone = {};
        hosts.clear();
        connect(listenerAddress(), asked);
        queues.advance(3s);
        EXPECT_EQ(phone.ready, 0);
        EXPECT_TRUE(hosts.empty());
        if (!hostWaits) {
            QuicEndOfConnection other;
            other.take(
                PelorinQUIC::connect(phoneQueue, listenerAddress(), phoneParameters()).value(), phoneQueue);
            queues.runReady();
            EXPECT_EQ(other.ready, 1);
            hosts.clear();
        }
        slow.runReady();
        queues.advance(1s);
        EXPECT_EQ(phone.ready, 1);
        EXPECT_EQ(hosts.size(), 1u);

        phone = {};
        hosts.clear();
        connect(listenerAddress(), asked);
        queues.advance(10s);
        EXPECT_THAT(
            phone.closed.value_or(""), HasSubstr(hostWaits ? "handshake failed" : "longer than 10 s"));
        EXPECT_TRUE(hosts.empty());
        slow.runReady(); // too late
        queues.advance(1s);
        EXPECT_TRUE(hosts.empty());
        EXPECT_EQ(phone.ready, 0);
    }
}

TEST_F(QuicHandshakes, judgeTheKeyOfTheLeafAloneAndRefuseAllElse)
{
    for (const bool isServer : {false, true}) {
        SCOPED_TRACE(isServer ? "rogue host" : "rogue phone");
        const SoftwareIdentity& known = isServer ? *hostIdentity : *phoneIdentity;
        const Bytes knownLeaf = known.secIdentity().certificate;
        const Key knownKey = keyOf(known);
        const auto stranger = foreign(GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1));
        const auto expired = foreign(GNUTLS_PK_ECDSA, 0, keyOf(known), {-4800h, -2400h}).certificate;
        const auto notYet = foreign(GNUTLS_PK_ECDSA, 0, keyOf(known), {2400h, 4800h}).certificate;
        Bytes badSignature = knownLeaf;
        badSignature.back() ^= 1;

        EXPECT_TRUE(letsIn(isServer, credentialsOf(knownKey, {knownLeaf})));
        EXPECT_TRUE(letsIn(isServer, credentialsOf(knownKey, {expired})));
        EXPECT_TRUE(letsIn(isServer, credentialsOf(knownKey, {notYet})));
        EXPECT_TRUE(letsIn(isServer, credentialsOf(knownKey, {badSignature})));
        EXPECT_TRUE(letsIn(isServer, credentialsOf(knownKey, {knownLeaf, stranger.certificate})));
        asked = 0;
        EXPECT_FALSE(letsIn(isServer, credentialsOf(stranger.key, {stranger.certificate})));
        EXPECT_FALSE(letsIn(isServer, credentialsOf(stranger.key, {stranger.certificate, knownLeaf})));
        EXPECT_EQ(asked, 2);
        EXPECT_FALSE(letsIn(isServer, credentialsOf(stranger.key, {knownLeaf}))) << "not the holder's";
        asked = 0;

        EXPECT_FALSE(letsIn(isServer, emptyCredentials()));
        const auto refusesKey = [&](gnutls_pk_algorithm_t algorithm, unsigned bits) {
            const auto other = foreign(algorithm, bits);
            EXPECT_FALSE(letsIn(isServer, credentialsOf(other.key, {other.certificate}))) << algorithm;
        };
        refusesKey(GNUTLS_PK_RSA, 2048);
        refusesKey(GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP384R1));
        refusesKey(GNUTLS_PK_EDDSA_ED25519, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_ED25519));
        for (const Bytes& garbage :
            {Bytes(), Bytes(1), Bytes(300, 0x30), Bytes(knownLeaf.begin(), knownLeaf.end() - 1)})
            EXPECT_FALSE(letsIn(isServer, credentialsOf(knownKey, {garbage}))) << garbage.size();
        EXPECT_EQ(asked, 0) << "there is nothing to ask about";
    }
}

TEST(QuicCertificates, yieldAFingerprintOnlyWhenTheyHoldAKeyOnP256)
{
    const auto identity = makeQuicIdentity("host");
    const Bytes whole = identity->secIdentity().certificate;
    const auto of = [](const std::vector<Bytes>& chain) {
        std::vector<gnutls_datum_t> data;
        for (const auto& one : chain)
            data.push_back({const_cast<std::uint8_t*>(one.data()), unsigned(one.size())});
        return leafFingerprint(data);
    };
    EXPECT_EQ(of({whole}), identity->fingerprint());
    EXPECT_EQ(of({whole, Bytes(5)}), identity->fingerprint());
    EXPECT_FALSE(of({}));
    EXPECT_FALSE(of({Bytes(5), whole}));
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(of({Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size))})) << size;
    // A changed byte may leave the key as it is; it never makes another key of it.
    for (std::size_t i = 0; i < whole.size() * 8; ++i) {
        Bytes changed = whole;
        changed[i / 8] ^= std::uint8_t(1 << i % 8);
        const auto found = of({changed});
        const bool hasKey = std::ranges::search(changed, identity->publicKey()).size() > 0;
        EXPECT_EQ(found == identity->fingerprint(), found && hasKey) << i;
    }
    for (const auto algorithm : {GNUTLS_PK_RSA, GNUTLS_PK_EDDSA_ED25519})
        EXPECT_FALSE(of({foreign(algorithm, algorithm == GNUTLS_PK_RSA ? 2048 : 0).certificate}))
            << algorithm;
    for (const auto curve : {GNUTLS_ECC_CURVE_SECP384R1, GNUTLS_ECC_CURVE_SECP521R1})
        EXPECT_FALSE(of({foreign(GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(curve)).certificate})) << curve;
}

TEST_F(QuicHandshakes, refuseEveryOtherProtocol)
{
    for (const std::string protocol : {"h3", "pelorin/2", "pelorin/", ""})
        for (const bool rogueIsServer : {false, true}) {
            SCOPED_TRACE(protocol + (rogueIsServer ? " of the host" : " of the phone"));
            const auto& shown = (rogueIsServer ? hostIdentity : phoneIdentity)->secIdentity();
            const auto other = rogue(rogueIsServer, QuicParameters::credentialsOf(shown));
            other->applicationProtocol = protocol;
            phone = {};
            if (rogueIsServer)
                listen(other);
            else
                listen();
            connect(listenerAddress(), rogueIsServer ? phoneParameters() : other);
            queues.runReady();
            EXPECT_EQ(phone.ready, 0);
            EXPECT_THAT(phone.closed.value_or(""), StartsWith("QUIC handshake failed: "));
            EXPECT_TRUE(hosts.empty());
        }
}

TEST_F(QuicHandshakes, failAtOnceWhereNobodyListensAndInTimeWhereNobodyAnswers)
{
    listen();
    const auto gone = listenerAddress();
    listener.reset();
    queues.runReady();
    connect(gone, phoneParameters());
    queues.runReady();
    EXPECT_EQ(phone.closed, "QUIC handshake failed: nobody listens there");

    const auto silent = UDPSocket::open("127.0.0.1", 0, hostQueue).value();
    phone = {};
    connect(silent->localAddress(), phoneParameters());
    queues.advance(9999ms);
    EXPECT_FALSE(phone.closed);
    queues.advance(1ms);
    EXPECT_EQ(phone.closed, "QUIC handshake failed: it took longer than 10 s");
}

TEST_F(QuicHandshakes, completeOverALineThatLosesAndDelays)
{
    listen();
    for (int i = 0; i < 20; ++i) {
        wire.emplace(wireQueue, listenerAddress());
        wire->quality = {.delay = 60ms, .jitter = 50ms, .keepsOrder = false, .loss = 0.05 * (i % 5)};
        phone = {};
        hosts.clear();
        connect(wire->address(), phoneParameters());
        EXPECT_TRUE(advanceUntil([&] { return phone.ready && hosts.size() == 1; }, 9s)) << i;
    }
}
