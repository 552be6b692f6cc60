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
