#include "PelorinCore/Result.h"
#include "Tests/Lab/NetworkNamespace.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/WindowManager.h"
#include "Tests/Lab/Wire.h"

#include <arpa/inet.h>
#include <atomic>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// The pointer in the viewer's window, with the real programs at the two ends of a long line.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using nlohmann::json;

// Passes one connection that comes in from a far network on to a port of this machine's loopback interface,
// which is where a host in test mode listens.
class Door {
public:
    Door(const lab::NetworkNamespace& network, std::uint16_t newPort) : port(newPort)
    {
        network.run([this] { listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); });
        const auto everywhere = address(INADDR_ANY);
        require(bind(listener, reinterpret_cast<const sockaddr*>(&everywhere), sizeof everywhere) == 0
                && listen(listener, 1) == 0,
            "a door");
        thread = std::thread([this] { pass(); });
    }
    ~Door()
    {
        shutdown(listener, SHUT_RDWR);
        for (const auto& end : ends) shutdown(end, SHUT_RDWR);
        thread.join();
        close(listener);
        for (const auto& end : ends) close(end);
    }
    Door(const Door&) = delete;
    Door& operator=(const Door&) = delete;

private:
    sockaddr_in address(in_addr_t of) const
    {
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_port = htons(port);
        place.sin_addr.s_addr = htonl(of);
        return place;
    }
    void pass()
    {
        ends[0] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ends[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto host = address(INADDR_LOOPBACK);
        if (ends[0] < 0 || connect(ends[1], reinterpret_cast<const sockaddr*>(&host), sizeof host) != 0)
            return;
        const int yes = 1;
        for (const auto& end : ends) setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        Bytes buffer(65536);
        for (;;) {
            pollfd waiting[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
            if (poll(waiting, 2, -1) < 0) return;
            for (int from = 0; from < 2; ++from) {
                if (waiting[from].revents == 0) continue;
                const auto count = read(ends[from], buffer.data(), buffer.size());
                if (count <= 0) return;
                for (ssize_t sent = 0; sent < count;) {
                    const auto more = send(ends[1 - from], buffer.data() + sent,
                        static_cast<std::size_t>(count - sent), MSG_NOSIGNAL);
                    if (more <= 0) return;
                    sent += more;
                }
            }
        }
    }

    const std::uint16_t port;
    int listener = -1;
    std::atomic<int> ends[2] = {-1, -1}; // set by the thread, shut down from outside
    std::thread thread;
};

TEST(Cursor, isDrawnWithinAFrameOfTheMoveWhenTheHostIsFarAwayAndDoesNotJump)
{
    if (const auto refusal = lab::NetworkNamespace::refusal()) GTEST_SKIP() << *refusal;
    const lab::XServer desk; // whose screen stands still
    const lab::XServer glass({.widthPx = 1400, .heightPx = 900, .isXorg = false, .extraArguments = {}});
    const auto manager = lab::startWindowManager(glass);
    lab::HostProgram host(desk.display());
    ASSERT_TRUE(host.waitUntilListening());

    const lab::NetworkNamespace near;
    const lab::NetworkNamespace far;
    lab::Wire wire({far, "line"}, {near, "line"});
    far.configure("ip address add 10.77.0.1/24 dev line && ip link set line up");
    near.configure("ip address add 10.77.0.2/24 dev line && ip link set line up");
    wire.set({.delay = 50ms});
    const Door door(far, host.port());
    const lab::TemporaryFolder folder;
    const auto viewer = lab::Process::start(
        near.inside({lab::programPath("pelorin-viewer"), "10.77.0.1:" + std::to_string(host.port())}),
        {"DISPLAY=" + glass.display(), "SDL_RENDER_DRIVER=software", "SDL_FRAMEBUFFER_ACCELERATION=0",
            "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"},
        (folder.path() / "log").string());
    const auto moved = [&](int moves) {
        return json::parse(
            glass.run({lab::programPath("pelorin-bench-pointer"), std::to_string(moves)}), nullptr, false);
    };
    ASSERT_TRUE(eventually([&] {
        const auto one = moved(1);
        return one.is_object() && one["n"] == 1 && one["jumps"] == 0;
    })) << lab::contentOf(folder.path() / "log")
        << host.log();
    const auto figures = moved(10);
    EXPECT_EQ(figures["lost"], 0) << figures;
    EXPECT_EQ(figures["jumps"], 0) << figures;
    EXPECT_LT(figures["p50Ms"], 16.7 * lab::slowness) << figures;
}

} // namespace
} // namespace pelorin
