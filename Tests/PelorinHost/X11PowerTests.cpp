#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Linux/X11Power.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>
#include <xcb/screensaver.h>

namespace pelorin {
namespace {

std::uint32_t saverState(const std::string& display)
{
    const auto x = X11Connection::open(display);
    const XcbReply<xcb_screensaver_query_info_reply_t> info(
        xcb_screensaver_query_info_reply(x->get(), xcb_screensaver_query_info(x->get(), x->root()), nullptr));
    return info ? info->state : 0xFF;
}

TEST(X11Power, wakesFromTheScreenSaverAndRefusesWithoutAServer)
{
    const lab::XServer server;
    X11Power power(server.display());
    const auto saverComes = [&] {
        server.run({"xset", "s", "activate"});
        return saverState(server.display()) == XCB_SCREENSAVER_STATE_ON;
    };
    ASSERT_TRUE(saverComes());
    power.declareUserActivity("test");
    EXPECT_EQ(saverState(server.display()), XCB_SCREENSAVER_STATE_OFF);
    EXPECT_TRUE(power.preventDisplaySleep("test"));
    EXPECT_FALSE(X11Power(":987").preventDisplaySleep("test"));
    X11Power(":987").declareUserActivity("test");
}

} // namespace
} // namespace pelorin
