#include "PelorinNet/Path/NameLookup.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <latch>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Addresses = std::vector<SocketAddress>;

const SocketAddress found = SocketAddress::ipv4({203, 0, 113, 7}, 0);

// A name server that answers when the test says so, or never while the test runs.
struct SlowServer {
    NameResolver resolver() const
    {
        return [state = state](const std::string&) {
            state->asked.count_down();
            state->released.wait();
            return Addresses{found};
        };
    }
    void waitUntilAsked() const { state->asked.wait(); }
    void answer() const { state->released.count_down(); }
    struct State {
        std::latch asked{1}, released{1};
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

class NameLookupTest : public testing::Test {
protected:
    std::function<void(Addresses)> noting()
    {
        return [this](Addresses addresses) { results.push_back(std::move(addresses)); };
    }
    bool eventuallyDone()
    {
        return lab::eventually([&] {
            queues.runReady();
            return !results.empty();
        });
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    std::vector<Addresses> results;
};

TEST_F(NameLookupTest, takesAnAddressAtItsWord)
{
    const NameResolver nobody = [](const std::string&) -> Addresses { throw std::logic_error("asked"); };
    lookUpName({"192.0.2.1", 3'478}, queue, noting(), nobody);
    EXPECT_TRUE(results.empty()) << "never from within the call";
    lookUpName({"2001:db8::1", 3'478}, queue, noting(), nobody);
    queues.runReady();
    EXPECT_EQ(results, (std::vector<Addresses>{{SocketAddress::ipv4({192, 0, 2, 1}, 3'478)}, {}}));
}

TEST_F(NameLookupTest, asksTheSystem)
{
    lookUpName({"localhost", 3'478}, queue, noting());
    ASSERT_TRUE(eventuallyDone());
    EXPECT_EQ(results[0].at(0), SocketAddress::ipv4({127, 0, 0, 1}, 3'478));
    queues.advance(1min);
    EXPECT_EQ(results.size(), 1u);

    for (const auto& name : {std::string(), std::string("no such name"), std::string(300, 'x')})
        EXPECT_TRUE(resolveBySystem(name).empty());
}

TEST_F(NameLookupTest, waitsFiveSecondsAndNoLonger)
{
    const SlowServer server;
    lookUpName({"slow.example", 1}, queue, noting(), server.resolver());
    server.waitUntilAsked();
    queues.advance(4'999ms);
    EXPECT_TRUE(results.empty());
    queues.advance(1ms);
    EXPECT_EQ(results, std::vector<Addresses>{{}});
    server.answer();
    queues.advance(1min);
    EXPECT_EQ(results.size(), 1u);
}

TEST_F(NameLookupTest, tellsALateAnswerWithThePort)
{
    const SlowServer server;
    lookUpName({"slow.example", 5'349}, queue, noting(), server.resolver());
    server.waitUntilAsked();
    queues.advance(4s);
    server.answer();
    ASSERT_TRUE(eventuallyDone());
    EXPECT_EQ(results[0], Addresses{SocketAddress::ipv4({203, 0, 113, 7}, 5'349)});
}

TEST(NameLookup, holdsUpNeitherItsQueueNorTheEndOfThePool)
{
    const SlowServer silent, answering;
    {
        PoolHarness harness;
        const auto queue = harness.makeQueue();
        Addresses answer;
        harness.runOn(queue, [&] {
            lookUpName(
                {"silent.example", 1}, queue, [](const Addresses&) { ADD_FAILURE(); }, silent.resolver());
            lookUpName(
                {"slow.example", 2}, queue, [&](Addresses addresses) { answer = std::move(addresses); },
                answering.resolver());
        });
        silent.waitUntilAsked();
        answering.answer();
        EXPECT_TRUE(harness.waitUntil(queue, [&] { return !answer.empty(); }));
    }
    silent.answer(); // its thread finds nobody left
}

} // namespace
} // namespace pelorin
