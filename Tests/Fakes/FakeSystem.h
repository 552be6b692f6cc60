#pragma once

#include "PelorinHost/Platform/System.h"

#include <deque>
#include <memory>
#include <set>
#include <utility>

namespace pelorin::fakes {

// A machine as a test describes it. Tools run until the test answers for them, the oldest first.
class FakeSystem final : public System {
public:
    explicit FakeSystem(std::filesystem::path newDirectory) : directory(std::move(newDirectory)) {}

    std::string name = "test-desktop";
    std::filesystem::path directory;
    std::vector<InterfaceAddress> interfaces;
    std::set<std::string> executables;
    std::vector<ToolRun> runs; // every one ever started

    std::string hostName() override { return name; }
    std::filesystem::path supportDirectory() override { return directory / "support"; }
    std::filesystem::path logDirectory() override { return directory / "log"; }
    std::vector<InterfaceAddress> interfaceAddresses() override { return interfaces; }
    bool isExecutableFile(const std::string& path) override { return executables.contains(path); }

    Subscription runTool(QueueRef queue, ToolRun run, ToolDone done) override
    {
        runs.push_back(std::move(run));
        running.push_back(std::make_shared<Running>(std::move(queue), std::move(done)));
        return Subscription(running.back());
    }

    std::size_t runningCount()
    {
        std::erase_if(running, [](const auto& tool) { return !tool->done; });
        return running.size();
    }
    // False when none runs.
    bool answer(Result<ToolExit, ToolFailure> how)
    {
        if (runningCount() == 0) return false;
        const auto tool = running.front();
        running.pop_front();
        tool->queue->post([tool, how = std::move(how)]() mutable {
            if (auto done = std::exchange(tool->done, nullptr)) done(std::move(how));
        });
        return true;
    }

private:
    struct Running final : Subscription::State {
        Running(QueueRef newQueue, ToolDone newDone) : queue(std::move(newQueue)), done(std::move(newDone)) {}
        void cancel() override { done = nullptr; }
        QueueRef queue;
        ToolDone done;
    };
    std::deque<std::shared_ptr<Running>> running;
};

} // namespace pelorin::fakes
