#include "PelorinHost/Linux/LinuxPower.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/MessageBus.h"

#include <csignal>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

TEST(LinuxPower, doesWithoutABusOrWithOneThatHangs)
{
    lab::MessageBus deaf;
    deaf.process().signal(SIGSTOP);
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("test");
    LinuxPower power(":987", {deaf.address(), "unix:path=/nonexistent/bus"});
    queue->post([&] { EXPECT_TRUE(power.preventDisplaySleep("test", queue)); });
    queues.runReady();
}

} // namespace
} // namespace pelorin
