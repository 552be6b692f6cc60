#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinHost/Trust/PairingStore.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/SystemCalls.h"
#include "Tests/PelorinHost/LogLines.h"

#include <barrier>
#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::string_view context = "host|phone|nonce";

Bytes publicKeyNumber(std::uint8_t number)
{
    Bytes key(65, number);
    key[0] = 4;
    return key;
}

// A store on virtual time, and what it said and wrote.
struct PairingStoreTest : testing::Test {
    LogLines log;
    lab::TemporaryFolder folder;
    std::filesystem::path file = folder.path() / "support" / "paired-devices.json";
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("pairing");
    int changes = 0;
    std::unique_ptr<PairingStore> store;
    Subscription watch;

    PairingStoreTest() { open(); }

    void open()
    {
        store = std::make_unique<PairingStore>(file.parent_path(), queue);
        watch = store->onDidChange(queues.makeQueue("main"), [this] { ++changes; });
        queues.runReady();
    }

    std::optional<PairingStore::Device> redeem(const std::string& name = "phone")
    {
        return store->redeem(store->beginPairing().key.identity, name);
    }

    std::optional<PairingStore::Device> pairRemote(const SecretBytes& code, std::uint8_t phone = 1,
        std::optional<SecretBytes> reviewCode = {}, const std::string& name = "remote")
    {
        const Bytes key = publicKeyNumber(phone);
        const Bytes proof = pairingProof(code, key, std::string(context));
        return store->pairRemote(key, name, proof, std::string(context), reviewCode);
    }

    nlohmann::json written() const { return nlohmann::json::parse(lab::contentOf(file)); }
};

TEST_F(PairingStoreTest, turnsAnOfferIntoAPairedPhoneOnce)
{
    const auto offer = store->beginPairing();
    EXPECT_TRUE(PelorinTLS::isIdentity(offer.key.identity, "pair-"));
    EXPECT_EQ(offer.key.secret.view().size(), 32u);
    EXPECT_EQ(offer.code.view().size(), 32u);
    EXPECT_EQ(offer.expiresAt - queue->wallNow(), 300s);
    EXPECT_THAT(store->keys(), ElementsAre(offer.key));

    EXPECT_FALSE(store->redeem("pair-0000000000000000", "stranger"));
    const auto device = store->redeem(offer.key.identity, "my\nphone\xC2\x9B[31m");
    ASSERT_TRUE(device);
    EXPECT_TRUE(PelorinTLS::isIdentity(device->id, "dev-"));
    EXPECT_EQ(device->name, "my phone [31m") << "nothing that a terminal listens to";
    EXPECT_EQ(device->key.view().size(), 32u);
    EXPECT_FALSE(device->key == offer.key.secret);
    EXPECT_FALSE(store->redeem(offer.key.identity, "second"));
    EXPECT_FALSE(store->pending());
    EXPECT_THAT(store->keys(), ElementsAre(PelorinTLS::Key{device->id, device->key}));
    EXPECT_THAT(store->devices(), ElementsAre(*device));

    ASSERT_THAT(written(), SizeIs(1));
    const nlohmann::json entry = written()[0];
    EXPECT_EQ(entry["id"], device->id);
    EXPECT_EQ(entry["name"], "my phone [31m");
    EXPECT_EQ(entry["key"], base64EncodedString(device->key.view()));
    EXPECT_FALSE(entry.contains("publicKey"));
    const auto epoch = std::chrono::sys_days(std::chrono::year(2001) / 1 / 1);
    EXPECT_EQ(entry["pairedAt"].get<double>(),
        std::chrono::duration<double>(queue->wallNow() - WallTime(epoch)).count());
    struct stat status = {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    open(); // the next start
    EXPECT_THAT(store->devices(), ElementsAre(*device));
    EXPECT_TRUE(store->remove(device->id));
    EXPECT_FALSE(store->remove(device->id));
    EXPECT_EQ(written(), nlohmann::json::array());
    EXPECT_THAT(log.lines,
        ElementsAre("pairing started (" + offer.key.identity + ")",
            "removed paired phone my phone [31m (" + device->id + ")"));
}

TEST_F(PairingStoreTest, endsAnOfferByWhicheverClockIsThereFirst)
{
    const struct {
        const char* what;
        std::vector<std::pair<bool, std::chrono::milliseconds>> moves; // of the wall clock alone, or of time
        bool isValid;
    } rows[] = {
        {"at once", {}, true},
        {"just before its end", {{false, 299'999ms}}, true},
        {"at its very end", {{false, 300s}}, false},
        {"with the wall clock set on", {{true, 300s}}, false},
        {"with the wall clock set on and back", {{true, 300s}, {true, -300s}}, false},
        {"with the wall clock set back", {{false, 200s}, {true, -250s}, {false, 100s}}, false},
        {"with the wall clock set back a little", {{false, 200s}, {true, -100s}}, true},
    };
    for (const auto& [what, moves, isValid] : rows) {
        const auto offer = store->beginPairing();
        for (const auto& [isWall, by] : moves) {
            isWall ? queues.jumpWall(by) : queues.advance(by);
            EXPECT_EQ(store->keys().size(), store->pending() ? 1u : 0u);
        }
        EXPECT_EQ(store->pending().has_value(), isValid) << what;
        EXPECT_EQ(pairRemote(offer.code).has_value(), isValid) << what;
        if (!isValid) {
            EXPECT_FALSE(store->redeem(offer.key.identity, "late")) << what;
        }
        for (const auto& device : store->devices()) store->remove(device.id);
    }
}

TEST_F(PairingStoreTest, clearsAnUnusedOfferASecondAfterItsEndAndNoOther)
{
    store->beginPairing();
    queues.advance(200s);
    const auto second = store->beginPairing(); // the first one's expiry must not touch it
    queues.advance(299s);
    EXPECT_EQ(store->pending(), second);
    changes = 0;
    queues.advance(1500ms);
    EXPECT_EQ(changes, 0);
    queues.advance(500ms);
    EXPECT_EQ(changes, 1);
    EXPECT_THAT(log.lines.back(), "pairing key expired unused");

    ASSERT_TRUE(redeem());
    log.lines.clear();
    queues.advance(400s);
    EXPECT_THAT(log.lines, IsEmpty()) << "it was used";
    store->beginPairing();
    store.reset();
    queues.advance(400s);
}

TEST_F(PairingStoreTest, pairsThroughTheServiceByProofOfTheCode)
{
    const auto offer = store->beginPairing();
    const SecretBytes review(Bytes(32, 7));
    const Bytes key = publicKeyNumber(1);
    const Bytes proof = pairingProof(offer.code, key, std::string(context));
    Bytes longer = proof;
    longer.push_back(0);
    Bytes wrong = proof;
    wrong.back() ^= 1;
    const struct {
        const char* what;
        Bytes key;
        Bytes proof;
        std::string context;
        std::optional<SecretBytes> review;
    } refused[] = {
        {"another proof", key, wrong, std::string(context), review},
        {"a longer proof", key, longer, std::string(context), review},
        {"no proof", key, {}, std::string(context), {}},
        {"another exchange's", key, proof, "host|phone|other", {}},
        {"another phone's", publicKeyNumber(2), proof, std::string(context), {}},
        {"a key of no length", Bytes(64, 4), pairingProof(offer.code, Bytes(64, 4), std::string(context)),
            std::string(context), {}},
        {"an empty review code", key, pairingProof({}, key, std::string(context)), std::string(context),
            SecretBytes()},
    };
    for (const auto& [what, phoneKey, shown, where, code] : refused)
        EXPECT_FALSE(store->pairRemote(phoneKey, "x", shown, where, code)) << what;
    EXPECT_TRUE(store->pending()) << "a wrong proof uses nothing up";

    const auto reviewed = pairRemote(review, 9, review, "first");
    ASSERT_TRUE(reviewed);
    const auto again = pairRemote(review, 9, review, "again");
    ASSERT_TRUE(again);
    EXPECT_NE(again->id, reviewed->id);
    EXPECT_TRUE(store->pending()) << "the review code leaves an offer alone";
    EXPECT_EQ(log.lines.back(), "paired again as " + again->id + " through the rendezvous service");

    const auto remote = pairRemote(offer.code);
    ASSERT_TRUE(remote);
    EXPECT_FALSE(pairRemote(offer.code)) << "once";
    EXPECT_TRUE(remote->key.isEmpty());
    EXPECT_THAT(store->keys(), IsEmpty()) << "no key, no TLS";
    EXPECT_THAT(store->devices(), ElementsAre(*again, *remote));
    EXPECT_EQ(store->device(KeyFingerprint::of(publicKeyNumber(9))), again);
    EXPECT_FALSE(store->device(KeyFingerprint::of(publicKeyNumber(3))));
    EXPECT_FALSE(store->device({}));
    const auto before = store->devices();
    open();
    EXPECT_EQ(store->devices(), before);
}

TEST_F(PairingStoreTest, tellsOfEveryChangeAfterTheLockIsFree)
{
    std::size_t seen = 99;
    const auto reader = store->onDidChange(
        queues.makeQueue("reader"), [&] { seen = store->devices().size() * 10 + store->keys().size(); });
    const auto identity = store->beginPairing().key.identity;
    queues.runReady();
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(seen, 1u);
    const auto device = store->redeem(identity, "phone");
    queues.runReady();
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(seen, 11u);
    store->redeem(identity, "phone");
    store->remove("dev-0000000000000000");
    queues.runReady();
    EXPECT_EQ(changes, 2) << "nothing changed";
    watch.cancel();
    store->remove(device->id);
    queues.runReady();
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(seen, 0u);
}

TEST_F(PairingStoreTest, keepsPhonesThatCouldNotBeSavedForTheNextSave)
{
    const auto offer = store->beginPairing();
    lab::write(file.parent_path().string() + "-file", "");
    std::filesystem::remove_all(file.parent_path());
    std::filesystem::rename(file.parent_path().string() + "-file", file.parent_path());
    const auto device = store->redeem(offer.key.identity, "phone");
    ASSERT_TRUE(device);
    EXPECT_THAT(log.lines.back(), HasSubstr("cannot write"));
    std::filesystem::remove(file.parent_path());
    const auto second = redeem("second");
    open();
    EXPECT_THAT(store->devices(), ElementsAre(*device, *second));
}

TEST_F(PairingStoreTest, trustsNoFileThatItCouldNotHaveWritten)
{
    const std::string key = base64EncodedString(Bytes(32, 1));
    const std::string publicKey = base64EncodedString(publicKeyNumber(1));
    const auto record = [](const std::string& id, const std::string& rest) {
        return R"({"id":")" + id + R"(","name":"p",)" + rest + "}";
    };
    const std::string id = "dev-0123456789abcdef";
    const std::string sound = record(id, R"("pairedAt":750000000.5,"key":")" + key + '"');
    const std::string other
        = record("dev-0123456789abcde0", R"("pairedAt":-1,"key":"","publicKey":")" + publicKey + '"');
    const struct {
        const char* what;
        std::string content;
        std::size_t devices;
    } rows[] = {
        {"sound", "[" + sound + "," + other + "]", 2},
        {"with members of a later version",
            "[" + record(id, R"("x":{"y":[1]},"pairedAt":1,"key":")" + key + '"') + "]", 1},
        {"empty", "", 0},
        {"cut", "[" + sound, 0},
        {"no list", sound, 0},
        {"one id twice", "[" + sound + "," + sound + "]", 0},
        {"one damaged record among sound ones", "[" + other + R"(,{"id":"dev-0123456789abcdef"}])", 0},
        {"bad base64", "[" + record(id, R"("pairedAt":1,"key":"?)" + key.substr(1) + '"') + "]", 0},
        {"a short key", "[" + record(id, R"("pairedAt":1,"key":"AAAA")") + "]", 0},
        {"a short public key", "[" + record(id, R"("pairedAt":1,"key":"","publicKey":"AAAA")") + "]", 0},
        {"a null public key", "[" + record(id, R"("pairedAt":1,"key":"","publicKey":null)") + "]", 0},
        {"a date as text", "[" + record(id, R"("pairedAt":"2024","key":")" + key + '"') + "]", 0},
        {"a date beyond all clocks", "[" + record(id, R"("pairedAt":1e300,"key":")" + key + '"') + "]", 0},
        {"a date beyond our clock", "[" + record(id, R"("pairedAt":9e9,"key":")" + key + '"') + "]", 0},
        {"the identity of a pairing key",
            "[" + record("pair-0123456789abcdef", R"("pairedAt":1,"key":")" + key + '"') + "]", 0},
        {"deeply nested", std::string(100'000, '['), 0},
        {"longer than any of ours", "[" + sound + "]" + std::string(1 << 20, ' '), 0},
    };
    for (const auto& [what, content, devices] : rows) {
        lab::write(file, content);
        log.lines.clear();
        open();
        EXPECT_EQ(store->devices().size(), devices) << what;
        EXPECT_EQ(log.lines.empty(), devices > 0) << what;
        EXPECT_EQ(lab::contentOf(file), content) << "reading destroys nothing";
    }
    ASSERT_TRUE(redeem());
    EXPECT_THAT(written(), SizeIs(1)) << "the next save replaces it";

    std::string many = "[";
    for (std::size_t i = 0; i <= PairingStore::maxDevices; ++i)
        many += (i ? "," : "") + record(fmt::format("dev-{:016x}", i), R"("pairedAt":1,"key":")" + key + '"');
    lab::write(file, many + "]");
    open();
    EXPECT_THAT(store->devices(), IsEmpty());
}

TEST_F(PairingStoreTest, pairsNoMorePhonesThanItWouldReadBack)
{
    for (std::size_t i = 0; i < PairingStore::maxDevices; ++i) ASSERT_TRUE(redeem());
    EXPECT_FALSE(redeem());
    const SecretBytes review(Bytes(32, 7));
    EXPECT_FALSE(pairRemote(review, 1, review));
    open();
    EXPECT_THAT(store->devices(), SizeIs(PairingStore::maxDevices));
    store->remove(store->devices().front().id);
    EXPECT_TRUE(pairRemote(review, 1, review));
    EXPECT_TRUE(pairRemote(review, 1, review)) << "in its own place";
}

TEST(PairingStore, redeemsAnOfferOnceHoweverManyTryAtOnce)
{
    lab::TemporaryFolder folder;
    QueuePool pool(2);
    const QueueRef main = pool.makeQueue("main");
    std::atomic<int> told = 0;
    {
        PairingStore store(folder.path(), pool.makeQueue("pairing"));
        const auto watch = std::make_shared<Subscription>(store.onDidChange(main, [&] { ++told; }));
        for (int round = 1; round <= 10; ++round) {
            const auto offer = store.beginPairing();
            constexpr int threads = 20;
            std::barrier start(threads);
            std::atomic<int> paired = 0;
            {
                std::vector<std::jthread> phones;
                for (int i = 0; i < threads; ++i)
                    phones.emplace_back([&, isRemote = i % 2 == 0] {
                        const Bytes key = publicKeyNumber(static_cast<std::uint8_t>(round));
                        const Bytes proof = pairingProof(offer.code, key, "c");
                        start.arrive_and_wait();
                        paired += isRemote ? store.pairRemote(key, "r", proof, "c", {}).has_value()
                                           : store.redeem(offer.key.identity, "t").has_value();
                        store.keys();
                        store.devices();
                    });
            }
            EXPECT_EQ(paired, 1);
            EXPECT_THAT(store.devices(), SizeIs(round));
        }
        main->post([watch] { watch->cancel(); });
    }
    PairingStore reread(folder.path(), pool.makeQueue("pairing"));
    EXPECT_THAT(reread.devices(), SizeIs(10));
}

// Pairs one phone in a child that is killed when it has made so many system calls; false when it came to its
// end before. told: what the child knew to be done, the phone's id.
bool pairAndKill(const std::filesystem::path& folder, int calls, std::string& told)
{
    int progress[2];
    if (::pipe(progress) != 0) return false;
    const pid_t child = ::fork();
    if (child == 0) {
        Log::observe([](LogLevel, std::string_view, std::string_view) {});
        ManualQueues queues;
        PairingStore store(folder, queues.makeQueue("pairing"));
        const auto offer = store.beginPairing();
        ::ptrace(PTRACE_TRACEME);
        ::raise(SIGSTOP);
        const auto device = store.redeem(offer.key.identity, "phone");
        ::_exit(::write(progress[1], device->id.data(), device->id.size()) < 0);
    }
    ::close(progress[1]);
    ::waitpid(child, nullptr, 0);
    const bool isAlive = lab::advanceBySystemCalls(child, calls);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    char text[64];
    const auto size = ::read(progress[0], text, sizeof text);
    told.assign(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    ::close(progress[0]);
    return isAlive;
}

TEST(PairingStore, neverLeavesAHalfWrittenFileHoweverFarASaveCame)
{
    lab::TemporaryFolder folder;
    const auto file = folder.path() / "paired-devices.json";
    int unfinished = 0;
    std::size_t before = 0;
    bool isKilled = true;
    for (int calls = 0; isKilled; ++calls) {
        SCOPED_TRACE(calls);
        std::string told;
        isKilled = pairAndKill(folder.path(), calls, told);

        const LogLines log;
        ManualQueues queues;
        const PairingStore left(folder.path(), queues.makeQueue("pairing"));
        EXPECT_THAT(log.lines, IsEmpty());
        const auto devices = left.devices();
        EXPECT_GE(devices.size(), before) << "nobody who was paired is lost";
        EXPECT_LE(devices.size(), before + 1);
        const bool isKept = told.empty() || (!devices.empty() && devices.back().id == told);
        EXPECT_TRUE(isKept) << "a phone that was told it is paired is lost";
        before = devices.size();
        for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
            unfinished += entry.path() != file;
    }
    EXPECT_GT(unfinished, 0) << "no kill hit a save, so this proves nothing";
    ManualQueues queues;
    PairingStore next(folder.path(), queues.makeQueue("pairing"));
    next.remove(next.devices().front().id);
    const std::filesystem::directory_iterator entries(folder.path());
    EXPECT_EQ(std::distance(entries, {}), 1) << "secrets lie about in what the killed ones left behind";
}

} // namespace
} // namespace pelorin
