#include "PelorinHost/Linux/X11Pasteboard.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/XServer.h"

#include <future>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

// Runs work on the queue and gives back what it returns.
template <class Work>
auto on(SerialQueue& queue, Work work)
{
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    queue.post([&task] { task(); });
    return result.get();
}

std::string paste(const lab::XServer& server, const std::string& target)
{
    return server.run({"xclip", "-selection", "clipboard", "-out", "-target", target});
}

TEST(X11Pasteboard, handsItsTextToApplicationsInWhatTheyAskFor)
{
    const lab::XServer server;
    QueuePool pool(2);
    const auto queue = pool.makeQueue("test");
    auto pasteboard = std::make_unique<X11Pasteboard>(queue, server.display());

    const std::string text = "déjà 你好\n🙂";
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText(text); }));
    EXPECT_EQ(paste(server, "UTF8_STRING"), text);
    EXPECT_EQ(paste(server, "text/plain;charset=utf-8"), text);
    EXPECT_NE(paste(server, "TARGETS").find("UTF8_STRING"), std::string::npos);
    EXPECT_EQ(paste(server, "STRING"), "d\xE9j\xE0 ??\n?");

    std::string large; // many pieces
    while (large.size() < 300'000) large += "line " + std::to_string(large.size()) + "\n";
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText(large); }));
    EXPECT_EQ(paste(server, "UTF8_STRING"), large);

    const auto other = server.launch({"sh", "-c", "echo -n other | xclip -selection clipboard -in -quiet"});
    while (paste(server, "UTF8_STRING") == large) {}
    EXPECT_EQ(paste(server, "UTF8_STRING"), "other");
    on(*queue, [&] { return pasteboard.reset(), true; });
}

TEST(X11Pasteboard, answersForSeveralTargetsAtOnce)
{
    const lab::XServer server;
    QueuePool pool(2);
    const auto queue = pool.makeQueue("test");
    auto pasteboard = std::make_unique<X11Pasteboard>(queue, server.display());
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText("both"); }));

    auto client = X11Connection::open(server.display());
    ASSERT_TRUE(client);
    auto* c = client->get();
    const auto atom = [&](std::string_view name) {
        return XcbReply<xcb_intern_atom_reply_t>(
            xcb_intern_atom_reply(
                c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(name.size()), name.data()), nullptr))
            ->atom;
    };
    const auto property = [&](xcb_window_t window, xcb_atom_t name) {
        return XcbReply<xcb_get_property_reply_t>(xcb_get_property_reply(
            c, xcb_get_property(c, 1, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, 1000), nullptr));
    };
    const xcb_window_t window = xcb_generate_id(c);
    xcb_create_window(
        c, 0, window, client->root(), 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, 0, 0, nullptr);
    const xcb_atom_t multiple = atom("MULTIPLE");
    const xcb_atom_t asked[] = {atom("UTF8_STRING"), atom("FIRST"), atom("image/png"), atom("SECOND"),
        multiple, atom("THIRD"), XCB_ATOM_STRING, atom("FOURTH")};
    xcb_change_property(
        c, XCB_PROP_MODE_REPLACE, window, atom("LIST"), atom("ATOM_PAIR"), 32, std::size(asked), asked);
    xcb_convert_selection(c, window, atom("CLIPBOARD"), multiple, atom("LIST"), XCB_CURRENT_TIME);
    client->flush();
    const XcbReply<xcb_generic_event_t> answer(xcb_wait_for_event(c));
    ASSERT_EQ(answer->response_type & 0x7F, XCB_SELECTION_NOTIFY);
    EXPECT_EQ(reinterpret_cast<const xcb_selection_notify_event_t&>(*answer).property, atom("LIST"));

    const auto list = property(window, atom("LIST"));
    ASSERT_EQ(xcb_get_property_value_length(list.get()), sizeof asked);
    const auto* got = static_cast<const xcb_atom_t*>(xcb_get_property_value(list.get()));
    for (const int i : {1, 7}) {
        EXPECT_EQ(got[i], asked[i]);
        const auto text = property(window, asked[i]);
        EXPECT_EQ(std::string(static_cast<const char*>(xcb_get_property_value(text.get())), 4), "both");
    }
    for (const int i : {3, 5}) EXPECT_EQ(got[i], XCB_ATOM_NONE) << "neither a picture nor a list in a list";
    on(*queue, [&] { return pasteboard.reset(), true; });
}

TEST(X11Pasteboard, waitsForNoServerThatIsStopped)
{
    lab::XServer server;
    QueuePool pool(2);
    const auto queue = pool.makeQueue("test");
    auto pasteboard = std::make_unique<X11Pasteboard>(queue, server.display());
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText("before"); }));
    server.pause();
    EXPECT_FALSE(on(*queue, [&] { return pasteboard->setText("stuck"); })); // returns, which is the test
    server.resume();
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText("after"); }));
    EXPECT_EQ(paste(server, "UTF8_STRING"), "after");
    on(*queue, [&] { return pasteboard.reset(), true; });
}

TEST(X11Pasteboard, findsTheServerAgainAfterItsDeath)
{
    lab::XServer server;
    QueuePool pool(2);
    const auto queue = pool.makeQueue("test");
    auto pasteboard = std::make_unique<X11Pasteboard>(queue, server.display());
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText("before"); }));
    server.kill();
    EXPECT_FALSE(on(*queue, [&] { return pasteboard->setText("lost") || pasteboard->setText("lost"); }));
    server.restart();
    ASSERT_TRUE(on(*queue, [&] { return pasteboard->setText("after"); }));
    EXPECT_EQ(paste(server, "UTF8_STRING"), "after");
    on(*queue, [&] { return pasteboard.reset(), true; });
}

} // namespace
} // namespace pelorin
