#include "PelorinNet/Rendezvous/CredentialRenewal.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/ScriptedService.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

TEST(CredentialRenewal, asksEveryFourHoursAndSoonerWhenItGotNone)
{
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("phone");
    ScriptedService service;
    std::vector<TurnCredentials> got;
    auto renewal
        = std::make_unique<CredentialRenewal>(queue, service.maker(), "wss://one.example/v1/connect/id");
    renewal->onFresh = [&](const TurnCredentials& fresh) {
        got.push_back(fresh);
        if (got.size() == 2) renewal.reset();
    };
    const auto greeting = [](const char* name) {
        return json{{"type", "hello"}, {"online", true},
            {"turn", {{"uris", {"turn:relay.example"}}, {"username", name}, {"credential", "c"}}}};
    };
    const struct {
        const char* name;
        Duration pause;
        std::function<void()> happens; // to the socket that opens then
        std::size_t got;
    } steps[] = {
        {"granted", 4h, [&] { service.line().say(greeting("first")); }, 1},
        {"offline", 4h, [&] { service.line().say({{"type", "hello"}, {"online", false}}); }, 1},
        {"silent", 10min, [&] { queues.advance(10s); }, 1},
        {"cut", 10min, [&] { service.line().cut("gone"); }, 1},
        {"granted, and ended", 10min, [&] { service.line().say(greeting("second")); }, 2},
    };
    std::size_t opened = 0;
    for (const auto& [name, pause, happens, count] : steps) {
        SCOPED_TRACE(name);
        queues.advance(pause - 1ms);
        EXPECT_EQ(service.lines.size(), opened);
        queues.advance(1ms);
        ASSERT_EQ(service.lines.size(), ++opened);
        EXPECT_EQ(service.line().url, "wss://one.example/v1/connect/id");
        happens();
        queues.runReady();
        EXPECT_TRUE(service.line().isClosed);
        EXPECT_EQ(got.size(), count);
    }
    queues.advance(24h);
    EXPECT_EQ(service.lines.size(), opened);
    EXPECT_EQ(got, (std::vector<TurnCredentials>{{"first", "c"}, {"second", "c"}}));
}

} // namespace
} // namespace pelorin
