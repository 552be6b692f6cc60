#pragma once

#include "PelorinHost/Platform/System.h"

#include <array>
#include <sys/types.h>

namespace pelorin {

// One tool as a child process in a process group of its own, watched through its pidfd and the pipes of its
// output, so that nothing here ever waits. Queue: the caller's. Owned by the subscription that start gives.
class LinuxTool final : public Subscription::State {
public:
    static Subscription start(QueueRef queue, ToolRun run, System::ToolDone done);

    LinuxTool(QueueRef queue, ToolRun run, System::ToolDone done);
    ~LinuxTool() override;
    void cancel() override;

private:
    struct Stream {
        int fd = -1; // until its end
        std::string text;
        Subscription readable;
    };

    void begin();
    bool spawn(std::string& problem);
    void read(Stream& stream);
    void exited();
    void endIfComplete();
    void fail(ToolFailure::Kind kind, std::string description);
    void finish(Result<ToolExit, ToolFailure> how);
    void release();

    const QueueRef queue;
    const ToolRun run;
    System::ToolDone done;
    pid_t child = -1; // until it is reaped
    int processFd = -1;
    int exitStatus = 0;
    std::array<Stream, 2> streams; // standard output, standard error
    Subscription exit;
    Subscription timer; // the deadline; after the exit, the grace of the pipes
};

} // namespace pelorin
