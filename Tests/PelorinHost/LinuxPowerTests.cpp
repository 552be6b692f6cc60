#include "PelorinHost/Linux/LinuxPower.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/DesktopServices.h"
#include "Tests/Lab/Wait.h"

#include <csignal>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

TEST(LinuxPower, keepsLoginManagerAndScreenSaverFromSleepForAsLongAsItIsHeld)
{
    lab::DesktopServices services;
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("test");
    LinuxPower power(":987", {services.address(), services.address()});
    const auto eventually = [&](const std::function<bool()>& condition) {
        return lab::eventually([&] {
            queues.runReady();
            return condition();
        });
    };
    EXPECT_FALSE(services.isKeptAwakeByLogin());
    for (int session = 0; session < 2; ++session) {
        std::unique_ptr<PowerAssertion> awake;
        queue->post([&] { awake = power.preventDisplaySleep("Pelorin remote session", queue); });
        EXPECT_TRUE(eventually([&] { return services.isKeptAwakeByLogin(); }));
        EXPECT_TRUE(eventually([&] { return services.isKeptAwakeBySaver(); }));
        queue->post([&] { awake.reset(); });
        EXPECT_TRUE(eventually([&] { return !services.isKeptAwakeByLogin(); }));
        EXPECT_TRUE(eventually([&] { return !services.isKeptAwakeBySaver(); }));
    }
}

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
