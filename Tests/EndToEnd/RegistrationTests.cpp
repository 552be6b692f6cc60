#include "Tests/Lab/Programs.h"
#include "Tests/Lab/RendezvousService.h"
#include "Tests/Lab/Wait.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

// The real host program at the real rendezvous service.
namespace pelorin {
namespace {

using lab::eventually;

// What the host says of itself; empty while it is not registered.
std::string hostID(const lab::HostProgram& host)
{
    const auto status = nlohmann::json::parse(host.control({"status", "--json"}), nullptr, false);
    if (!status.is_object() || !status["hostID"].is_string()) return {};
    EXPECT_TRUE(status["rendezvous"].is_string());
    return status["hostID"];
}

std::string answerTo(const std::string& url)
{
    return lab::outputOf({"/usr/bin/python3", "-c",
        "import sys, urllib.request; print(urllib.request.urlopen(sys.argv[1]).read().decode())", url});
}

bool becomes(const lab::RendezvousService& service, const std::string& id, const char* online)
{
    return eventually([&] { return answerTo(service.url() + "/v1/status/" + id).contains(online); });
}

TEST(Registration, isThereWhileHostAndServiceAre)
{
    lab::XServer screen;
    auto service = std::make_unique<lab::RendezvousService>();
    lab::HostProgram host(
        screen.display(), R"("rendezvous": true, "rendezvousURL": ")" + service->url() + "\"");
    ASSERT_TRUE(eventually([&] { return !hostID(host).empty(); })) << host.log();
    const std::string id = hostID(host);
    EXPECT_EQ(id.size(), 26u);
    EXPECT_TRUE(becomes(*service, id, R"("online":true)"));
    EXPECT_TRUE(becomes(*service, std::string(26, 'a'), R"("online":false)"));

    const std::uint16_t port = service->port();
    service.reset();
    EXPECT_TRUE(eventually([&] { return hostID(host).empty(); })) << host.log();
    service = std::make_unique<lab::RendezvousService>(lab::RendezvousService::Options{.port = port});
    EXPECT_TRUE(eventually([&] { return hostID(host) == id; })) << host.log();
    EXPECT_TRUE(becomes(*service, id, R"("online":true)"));

    host.control({"quit"});
    EXPECT_TRUE(becomes(*service, id, R"("online":false)"));
    EXPECT_EQ(host.process().waitForExit(10'000), 0);
}

} // namespace
} // namespace pelorin
