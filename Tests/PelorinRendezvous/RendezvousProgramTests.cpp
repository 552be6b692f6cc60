#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/RendezvousService.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

using namespace pelorin;

namespace {

constexpr int playTimeoutMs = 100'000;

// The real program, and peers of another make, each play in a process of its own.
class RendezvousProgram : public testing::TestWithParam<bool> {
protected:
    RendezvousProgram()
    {
        lab::RendezvousService::Options options;
        options.more = {"--requests-per-minute", "1000", "--registrations-per-minute", "1000"};
        if (GetParam()) {
            options.certificate = file("certificate");
            options.key = file("key");
            lab::outputOf({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-nodes", "-subj", "/CN=meet.example", "-addext", "subjectAltName=DNS:localhost", "-keyout",
                options.key, "-out", options.certificate});
        }
        service = std::make_unique<lab::RendezvousService>(options);
    }

    std::string file(const char* name) const { return (folder.path() / name).string(); }

    void play(const char* what) const
    {
        std::vector<std::string> command{"/usr/bin/python3", lab::programPath("pelorin-rendezvous-peers"),
            what, std::to_string(service->port()), std::to_string(service->process().pid())};
        if (GetParam()) command.push_back(file("certificate"));
        const auto peers = lab::Process::start(command, {}, file("peers.log"));
        EXPECT_EQ(peers->waitForExit(playTimeoutMs), 0) << what << ":\n" << lab::contentOf(file("peers.log"));
    }

    lab::TemporaryFolder folder;
    std::unique_ptr<lab::RendezvousService> service;
};

INSTANTIATE_TEST_SUITE_P(, RendezvousProgram, testing::Bool(),
    [](const auto& hasTLS) { return hasTLS.param ? "withTLS" : "plain"; });

} // namespace

TEST_P(RendezvousProgram, servesAClientThatIsNotOurs)
{
    play("flow");
}

TEST_P(RendezvousProgram, standsWhateverItsPeersDo)
{
    for (const char* what : {"impostors", "rule breakers", "the deaf", "the loud", "the slow", "the many"})
        play(what);
    play("flow");
    ASSERT_TRUE(service->process().isRunning()) << service->log();
}

TEST_P(RendezvousProgram, saysGoodbyeToAllWhenItIsTold)
{
    play("the end");
    EXPECT_EQ(service->process().waitForExit(playTimeoutMs), 0) << service->log();
}
