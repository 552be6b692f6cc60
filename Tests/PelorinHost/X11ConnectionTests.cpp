#include "PelorinHost/Linux/X11Connection.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

TEST(X11Connection, noticesItsServersDeathAndFindsTheNextOne)
{
    lab::XServer server;
    auto connection = X11Connection::open(server.display());
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->screen().width_in_pixels, 1280);

    server.kill();
    free(xcb_get_input_focus_reply(connection->get(), xcb_get_input_focus(connection->get()), nullptr));
    EXPECT_TRUE(connection->isBroken());
    EXPECT_EQ(
        X11Connection::open(server.display()).error().description, "no X server at " + server.display());

    server.restart();
    EXPECT_TRUE(X11Connection::open(server.display()));
}

TEST(X11Connection, opensAnXorgWithSeveralOutputs)
{
    lab::XServer server({.widthPx = 1920, .heightPx = 1080, .isXorg = true, .extraArguments = {}});
    const auto outputs = server.run({"xrandr"});
    EXPECT_NE(outputs.find("DUMMY0 connected primary 1920x1080"), std::string::npos) << outputs;
}

} // namespace
} // namespace pelorin
