#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "PelorinHost/Shell/PairingCommands.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using testing::HasSubstr;
using testing::Not;

struct PairingCommandsTest : testing::Test {
    ManualQueues queues;
    lab::TemporaryFolder folder;
    PairingStore store{folder.path(), queues.makeQueue("pairing")};
    HostConfig config;
    HostServer::Status server;
    std::optional<PairingCommands::Remote> remote;

    nlohmann::json pair()
    {
        return nlohmann::json::parse(PairingCommands::pair(store, server, config, "王's Studio", remote));
    }
};

TEST_F(PairingCommandsTest, offersALinkToWhereTheHostListens)
{
    std::string log;
    Log::observe([&](LogLevel, std::string_view, std::string_view text) { log += text; });
    server.tailnetAddress = "100.101.102.103";
    server.dnsName = "studio.example-tailnet.ts.net";
    server.port = 7878;
    const auto reply = pair();
    Log::observe({});
    const auto offer = store.pending();
    ASSERT_TRUE(offer);
    const PairingLink expected{"王's Studio", "100.101.102.103", "studio.example-tailnet.ts.net", 7878,
        offer->key.identity, offer->key.secret};
    EXPECT_EQ(PairingLink::parse(reply["link"].get<std::string>()), expected);
    EXPECT_EQ(reply["expiresInSeconds"], 300);
    EXPECT_EQ(reply["text"], "用 iPhone 相机或 Pelorin 扫码配对，5 分钟内有效，只能用一次");
    const auto shown = PairingCommands::readablePair(reply.dump());
    EXPECT_THAT(shown.value(), HasSubstr("\n" + expected.url() + "\n"));
    EXPECT_THAT(shown.value(), HasSubstr("▀"));
    EXPECT_THAT(shown.value(), HasSubstr("扫码配对，5 分钟内有效"));
    EXPECT_EQ(PairingCommands::linkIn(reply.dump()), expected.url());
    EXPECT_THAT(log, Not(HasSubstr(expected.url().substr(expected.url().find("key=") + 4))));

    server.dnsName.reset();
    server.port = 0; // between two listeners
    const auto link = PairingLink::parse(pair()["link"].get<std::string>());
    ASSERT_TRUE(link);
    EXPECT_EQ(link->port, 7420);
    EXPECT_FALSE(link->dnsName);
}

TEST_F(PairingCommandsTest, offersTheWayThroughTheServiceToo)
{
    remote = {"abcdefghijklmnopqrstuvwx27", Bytes(32, 7)};
    config.rendezvousURL = "https://rendezvous.example.org";
    for (const bool hasTailnet : {false, true}) {
        if (hasTailnet) server.tailnetAddress = "100.101.102.103";
        const auto reply = pair();
        const auto link = PairingOffer::parse(reply["link"].get<std::string>());
        ASSERT_TRUE(link && link->remote);
        EXPECT_EQ(link->tailnet.has_value(), hasTailnet);
        const RemotePairingLink expected{
            "王's Studio", remote->hostID, remote->fingerprint, config.rendezvousURL, store.pending()->code};
        EXPECT_EQ(*link->remote, expected);
        EXPECT_FALSE(reply.contains("reviewLink"));
        EXPECT_THAT(PairingCommands::readablePair(reply.dump()).value(), HasSubstr("▀")); // the code holds it
    }

    config.reviewPairingCode = "审核用的十个汉字啊ab123"; // 32 bytes
    const auto reply = pair();
    const auto review = RemotePairingLink::parse(reply["reviewLink"].get<std::string>());
    ASSERT_TRUE(review);
    EXPECT_EQ(std::string(review->code.view().begin(), review->code.view().end()), config.reviewPairingCode);
    EXPECT_EQ(reply["reviewText"], "审核模式：配对链接长期有效，只用于演示 Mac");
    EXPECT_THAT(PairingCommands::readablePair(reply.dump()).value(), HasSubstr("\n" + review->url() + "\n"));
    config.reviewPairingCode += "4";
    EXPECT_THAT(PairingCommands::readablePair(pair().dump()).value(), HasSubstr("needs 32 bytes"));
    remote.reset();
    EXPECT_FALSE(pair().contains("reviewLink"));
}

TEST_F(PairingCommandsTest, refusesInWordsWhereALinkWouldBeOfNoUse)
{
    const struct {
        bool isRequired;
        bool isTestMode;
        bool isRemote;
        bool hasTailnet;
        std::string text;
    } rows[] = {
        {true, false, false, false,
            "没法配对：远程连接已在配置文件里关闭（host.json 的 rendezvous），这台 Mac 也没有 Tailscale"},
        {true, false, true, false, "Pairing needs an address on the tailnet"},
        {false, false, true, true, "未启用配对（requirePairing 关闭或处于测试模式），只校验 Tailscale 身份"},
        {true, true, true, true, "未启用配对（requirePairing 关闭或处于测试模式），只校验 Tailscale 身份"},
    };
    for (const auto& [isRequired, isTestMode, isRemote, hasTailnet, text] : rows) {
        config.requirePairing = isRequired;
        config.allowLoopbackForTesting = isTestMode;
        config.rendezvous = isRemote;
        server.tailnetAddress = hasTailnet ? std::optional<std::string>("100.64.0.1") : std::nullopt;
        EXPECT_THAT(pair()["error"].get<std::string>(), HasSubstr(text));
        EXPECT_FALSE(store.pending());
    }
}

} // namespace
} // namespace pelorin
