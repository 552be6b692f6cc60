#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinHost/HostController.h"
#include "PelorinHost/Shell/StatusReport.h"
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeHostPlatform.h"
#include "Tests/Fakes/FakePhone.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Peers/ScriptedService.h"
#include "Tests/PelorinHost/LogLines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

struct QuietListener final : TcpListener {
    std::uint16_t port() const override { return 7420; }
};

// The controller on hand-driven queues, its control socket a real one.
struct ControllerTest : testing::Test {
    fakes::FakeHostPlatform platform; // outlives the queues, whose last tasks still use it
    ScriptedService service; // so do sockets
    ManualQueues queues;
    lab::TemporaryFolder folder;
    HostController::Places places{folder.path() / "support", folder.path() / "log"};
    PairingStore pairing{places.supportDirectory, queues.makeQueue("pairing")};
    TcpListener* listener = nullptr;
    bool hasQuit = false;
    std::unique_ptr<HostController> controller;

    std::unique_ptr<HostController> make()
    {
        const auto listen = [this](QueueRef, const std::string&,
                                std::uint16_t) -> Result<std::unique_ptr<TcpListener>, NetError> {
            auto made = std::make_unique<QuietListener>();
            listener = made.get();
            return made;
        };
        auto made
            = std::make_unique<HostController>(SessionSurroundings{platform, queues, pairing, std::nullopt},
                listen, places, queues.makeQueue("main"), service.maker());
        made->onQuit = [this] { hasQuit = true; };
        return made;
    }

    void begin()
    {
        lab::write(places.supportDirectory / "host.json", R"({"allowLoopbackForTesting": true})");
        controller = make();
        ASSERT_TRUE(controller->start());
        queues.runReady();
    }

    std::unique_ptr<fakes::FakePhone> connect()
    {
        auto pair = LoopbackPair::make({});
        auto phone = std::make_unique<fakes::FakePhone>(std::move(pair.second), queues.makeQueue("phone"));
        listener->onConnection(std::move(pair.first));
        phone->send(message::Hello{5, "my\n \"phone\"", {}, {}, {}});
        queues.runReady();
        return phone;
    }

    OwnedDescriptor client()
    {
        auto socket = connectLocally(places.supportDirectory / "control.sock");
        EXPECT_TRUE(socket) << socket.error();
        return socket ? std::move(*socket) : OwnedDescriptor();
    }

    void write(const OwnedDescriptor& socket, const std::string& text)
    {
        ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        queues.runReady();
    }

    static constexpr const char* open = "(still open)";
    static std::string readAll(const OwnedDescriptor& socket)
    {
        std::string text;
        char chunk[4096];
        ssize_t count = 0;
        while ((count = ::recv(socket.get(), chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
            text.append(chunk, static_cast<std::size_t>(count));
        return count < 0 && errno == EAGAIN ? text + open : text;
    }

    std::string ask(const std::string& request)
    {
        const auto socket = client();
        write(socket, request);
        return readAll(socket);
    }
};

TEST_F(ControllerTest, answersStatusForProgramsAndForPeople)
{
    begin();
    const auto before = nlohmann::json::parse(ask("{\"command\":\"status\"}\n"));
    EXPECT_EQ(before["listening"], "127.0.0.1:7420");
    EXPECT_EQ(before["allowedLogins"], nlohmann::json::array());
    EXPECT_TRUE(before["session"].is_null() && before["rendezvous"].is_null());
    EXPECT_EQ(before["pairing"]["required"], false);

    const auto phone = connect();
    queues.advance(1s);
    const std::string text = ask("{\"command\":\"status\"}\n");
    const auto session = nlohmann::json::parse(text)["session"];
    EXPECT_EQ(session["client"], "my  \"phone\"");
    for (const char* member : {"peer", "path", "fps", "mbps", "drops", "stages"})
        EXPECT_TRUE(session.contains(member)) << member;
    for (const char* stage : {"captureMs", "convertMs", "encodeMs", "sendMs"})
        EXPECT_TRUE(session["stages"][stage].is_number()) << stage;
    EXPECT_THAT(readableStatus(text).value(), HasSubstr("session with 本机（测试模式）"));
    EXPECT_FALSE(readableStatus("{\"error\": \"x\"}"));
}

TEST_F(ControllerTest, tellsTheLatestConnectionsFirstAndWhatIsWrongWithTheSettings)
{
    lab::write(places.supportDirectory / "host.json", R"({"port": "7420"})");
    controller = make();
    ASSERT_TRUE(controller->start());
    queues.runReady();
    const auto status = nlohmann::json::parse(ask("{\"command\":\"status\"}\n"));
    ASSERT_EQ(status["settingsProblems"].size(), 1u) << status;
    EXPECT_THAT(status["settingsProblems"][0].get<std::string>(), HasSubstr("host.json 写错了"));
    const auto latest
        = [&] { return nlohmann::json::parse(ask("{\"command\":\"connections\"}\n"))["connections"]; };
    EXPECT_EQ(latest().size(), 1u);

    ConnectionLog log(places.logDirectory);
    for (int i = 0; i < 400; ++i) log.append("line " + std::to_string(i) + std::string(100, '.'), {});
    ASSERT_EQ(latest().size(), ConnectionLog::mostLatest);
    EXPECT_THAT(latest()[0].get<std::string>(), HasSubstr("line 399."));
    EXPECT_THAT(latest()[9].get<std::string>(), HasSubstr("line 390."));
}

TEST_F(ControllerTest, tellsOfPairingWithoutItsSecrets)
{
    begin();
    const auto refused = nlohmann::json::parse(ask("{\"command\":\"pair\"}\n"));
    EXPECT_THAT(refused["error"].get<std::string>(), HasSubstr("没法配对")) << "in test mode";

    const auto device = pairing.redeem(pairing.beginPairing().key.identity, "my phone");
    const auto offer = pairing.beginPairing();
    queues.advance(100'500ms);
    const std::string status = ask("{\"command\":\"status\"}\n");
    EXPECT_EQ(nlohmann::json::parse(status)["pairing"],
        (nlohmann::json{{"required", false}, {"pending", {{"expiresInSeconds", 200}}}, {"devices", 1},
            {"reviewCode", false}}));
    EXPECT_THAT(readableStatus(status).value(),
        HasSubstr("pairing not required, 1 paired, a link is open for 200 s\n"));
    EXPECT_THAT(status, testing::Not(HasSubstr(offer.key.identity)));

    const std::string listed = ask("{\"command\":\"devices\"}\n");
    EXPECT_EQ(nlohmann::json::parse(listed)["devices"][0]["id"], device->id);
    EXPECT_THAT(listed, testing::Not(HasSubstr(base64EncodedString(device->key.view()))));
    for (const char* request : {"{\"command\":\"remove\"}\n", "{\"command\":\"remove\",\"id\":[1]}\n",
             "{\"command\":\"remove\",\"id\":\"dev-0\"}\n"})
        EXPECT_THAT(ask(request), HasSubstr("\"error\"")) << request;
    const auto removal = nlohmann::json{{"command", "remove"}, {"id", device->id}}.dump() + "\n";
    EXPECT_EQ(nlohmann::json::parse(ask(removal)), (nlohmann::json{{"removed", device->id}}));
    EXPECT_TRUE(pairing.devices().empty());
    queues.advance(300s);
    EXPECT_TRUE(nlohmann::json::parse(ask("{\"command\":\"status\"}\n"))["pairing"]["pending"].is_null());
}

TEST_F(ControllerTest, registersWhereTheSettingsNameAService)
{
    const struct {
        const char* settings;
        const char* registersAt; // nothing: stays away, for that reason
        const char* logged;
    } rows[] = {
        {R"({"rendezvousURL": "https://meet.example/a"})", "wss://meet.example/a/v1/host", ""},
        {R"({"rendezvousURL": "https://meet.example", "rendezvous": false})", nullptr,
            "turned off in host.json"},
        {"{}", nullptr, "host.json names no service (rendezvousURL)"},
        {R"({"rendezvousURL": "meet.example"})", nullptr, "is no https URL: meet.example"},
        {R"({"rendezvousURL": "https://no-key.example"})", nullptr,
            "rendezvous: cannot load or create this Mac's key: "},
    };
    for (const auto& [settings, registersAt, logged] : rows) {
        SCOPED_TRACE(settings);
        controller.reset();
        queues.runReady();
        service.lines.clear();
        const auto key = places.supportDirectory / "host-identity.json";
        if (std::string_view(settings).contains("no-key")) {
            std::filesystem::remove(key);
            std::filesystem::create_directories(key / "in the way");
        }
        lab::write(places.supportDirectory / "host.json", settings);
        const LogLines log;
        controller = make();
        ASSERT_TRUE(controller->start());
        queues.runReady();
        ASSERT_EQ(service.lines.size(), registersAt ? 1u : 0u);
        if (!registersAt) {
            EXPECT_THAT(log.lines, testing::Contains(HasSubstr(logged)));
            continue;
        }
        EXPECT_EQ(service.line().url, registersAt);
        for (const char* type : {"challenge", "registered"}) {
            service.line().say({{"type", type}, {"nonce", "n"}});
            queues.runReady();
        }
        const auto report = nlohmann::json::parse(ask("{\"command\":\"status\"}\n"));
        EXPECT_EQ(report["rendezvous"], "已登记到 https://meet.example/a");
    }
}

TEST_F(ControllerTest, showsAStandingReviewCodeForAsLongAsItIsSet)
{
    lab::write(places.supportDirectory / "host.json", R"({"reviewPairingCode": "a standing code"})");
    controller = make();
    ASSERT_TRUE(controller->start());
    queues.advance(24h);
    const std::string status = ask("{\"command\":\"status\"}\n");
    EXPECT_EQ(nlohmann::json::parse(status)["pairing"]["reviewCode"], true);
    EXPECT_THAT(status, testing::Not(HasSubstr("a standing code")));
    EXPECT_THAT(readableStatus(status).value(), HasSubstr("审核模式：配对链接长期有效，只用于演示 Mac\n"));
}

TEST_F(ControllerTest, writesTheConnectionLogForItsOwnerAlone)
{
    begin();
    const auto phone = connect();
    EXPECT_EQ(ask("{\"command\":\"disconnect\"}\n"), "{\"disconnected\":true}\n");
    EXPECT_EQ(ask("{\"command\":\"disconnect\"}\n"), "{\"disconnected\":false}\n");
    EXPECT_EQ(phone->last<message::Error>().message, "已在 Mac 上断开");
    const auto file = places.logDirectory / "connections.log";
    EXPECT_THAT(lab::contentOf(file), HasSubstr(" session started: 本机（测试模式）\n"));
    EXPECT_THAT(lab::contentOf(file), HasSubstr("disconnected on the Mac\n"));
    struct stat status = {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    ConnectionLog(places.logDirectory).append("rejected evil\nsession started: me", WallTime());
    EXPECT_THAT(lab::contentOf(file), HasSubstr(" rejected evil session started: me\n"));
}

TEST_F(ControllerTest, keepsTheConnectionLogBoundedAndLosesNothingOnTheWay)
{
    ConnectionLog log(places.logDirectory);
    const auto file = places.logDirectory / "connections.log";
    const auto former = places.logDirectory / "connections.log.1";
    const std::string filler(100'000, 'x');
    int line = 0;
    const auto append = [&] { log.append(fmt::format("line {} {}", line++, filler), WallTime()); };
    for (int turns = 0; turns < 2; ++turns) {
        const auto before = std::filesystem::exists(former) ? lab::contentOf(former) : std::string();
        while (!std::filesystem::exists(former) || lab::contentOf(former) == before) append();
        const auto all = lab::contentOf(former) + lab::contentOf(file);
        for (int last = line - 10; last < line; ++last)
            EXPECT_THAT(all, HasSubstr(fmt::format(" line {} ", last)));
    }
    EXPECT_LE(std::filesystem::file_size(former), ConnectionLog::mostBytes);
    EXPECT_LE(std::filesystem::file_size(file), ConnectionLog::mostBytes);
}

TEST_F(ControllerTest, bearsHostileRequests)
{
    begin();
    const struct {
        std::string request;
        std::string reply;
    } rows[] = {
        {"\n", "{\"error\":\"unknown command\"}\n"}, {"status\n", "{\"error\":\"unknown command\"}\n"},
        {"{\"command\":7}\n", "{\"error\":\"unknown command\"}\n"},
        {"{\"command\":\"\xFF\"}\n", "{\"error\":\"unknown command\"}\n"},
        {"[\"command\"]\n", "{\"error\":\"unknown command\"}\n"},
        {std::string(4000, '[') + "\n", "{\"error\":\"unknown command\"}\n"},
        {std::string("{\"command\":\"disconnect\"}\n{\"command\":\"quit\"}\n"), "{\"disconnected\":false}\n"},
        {"{\"command\":\"status\"", open}, // without an end
    };
    for (const auto& [request, reply] : rows) EXPECT_EQ(ask(request), reply) << request.substr(0, 40);
    EXPECT_EQ(ask(std::string(100'000, 'x')), "") << "hung up on";
    EXPECT_FALSE(hasQuit) << "one request a connection";

    std::vector<OwnedDescriptor> idle;
    for (int i = 0; i < 100; ++i) {
        idle.push_back(client());
        queues.runReady();
    }
    EXPECT_EQ(readAll(idle.front()), open);
    EXPECT_EQ(readAll(idle.back()), "") << "too many at once";
    queues.advance(5s);
    EXPECT_EQ(readAll(idle.front()), "") << "too long without a request";
    EXPECT_THAT(ask("{\"command\":\"status\"}\n"), HasSubstr("listening"));
}

TEST_F(ControllerTest, keepsASecondHostOutButNotTheNextOne)
{
    begin();
    lab::write(places.supportDirectory / "host.json", "broken");
    const auto refused = make()->start();
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error(), HasSubstr("another host runs"));
    EXPECT_EQ(lab::contentOf(places.supportDirectory / "host.json"), "broken") << "not the loser's business";
    EXPECT_THAT(ask("{\"command\":\"status\"}\n"), HasSubstr("listening")) << "the first one is unharmed";

    controller.reset();
    const auto file = places.supportDirectory / "control.sock";
    EXPECT_FALSE(std::filesystem::exists(file));
    auto dead = listenLocally(file); // what a host that crashed leaves behind
    ASSERT_TRUE(dead);
    *dead = {};
    begin();
    EXPECT_THAT(ask("{\"command\":\"status\"}\n"), HasSubstr("listening"));
    struct stat status = {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ControllerTest, saysWhatIsWrongWithItsDirectory)
{
    lab::write(folder.path() / "file", "");
    places.supportDirectory = folder.path() / "file" / "below";
    EXPECT_FALSE(make()->start());
    places.supportDirectory = folder.path() / std::string(150, 'x');
    const auto tooLong = make()->start();
    ASSERT_FALSE(tooLong);
    EXPECT_THAT(tooLong.error(), HasSubstr("too long"));
}

} // namespace
} // namespace pelorin
