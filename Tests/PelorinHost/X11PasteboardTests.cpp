#include "PelorinHost/Linux/X11Pasteboard.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <algorithm>
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

// A pasteboard on a thread of its own, as applications find it.
struct X11PasteboardTest : testing::Test {
    lab::XServer server;
    QueuePool pool{2};
    const QueueRef queue = pool.makeQueue("test");
    std::unique_ptr<X11Pasteboard> pasteboard = std::make_unique<X11Pasteboard>(queue, server.display());

    ~X11PasteboardTest() override
    {
        on(*queue, [&] { return pasteboard.reset(), true; });
    }
    bool setText(const std::string& text)
    {
        return on(*queue, [&] { return pasteboard->setText(text); });
    }
    std::string paste(const std::string& target = "UTF8_STRING") const
    {
        return server.run({"xclip", "-selection", "clipboard", "-out", "-target", target});
    }
};

TEST_F(X11PasteboardTest, handsItsTextToApplicationsInWhatTheyAskFor)
{
    const std::string text = "déjà 你好\n🙂";
    ASSERT_TRUE(setText(text));
    EXPECT_EQ(paste(), text);
    EXPECT_EQ(paste("text/plain;charset=utf-8"), text);
    EXPECT_NE(paste("TARGETS").find("UTF8_STRING"), std::string::npos);
    EXPECT_EQ(paste("STRING"), "d\xE9j\xE0 ??\n?");

    const auto other = server.launch({"sh", "-c", "echo -n other | xclip -selection clipboard -in -quiet"});
    while (paste() == text) {}
    EXPECT_EQ(paste(), "other");
}

TEST_F(X11PasteboardTest, waitsForNoServerThatIsStoppedAndFindsTheNextOne)
{
    ASSERT_TRUE(setText("before"));
    server.pause();
    EXPECT_FALSE(setText("stuck")); // returns, which is the test
    server.resume();
    ASSERT_TRUE(setText("after"));
    EXPECT_EQ(paste(), "after");

    server.kill();
    EXPECT_FALSE(setText("lost") || setText("lost"));
    server.restart();
    ASSERT_TRUE(setText("later"));
    EXPECT_EQ(paste(), "later");
}

std::string ofSize(std::size_t bytes, std::string_view unit)
{
    std::string text;
    while (text.size() + unit.size() <= bytes) text += unit;
    return text.append(bytes - text.size(), '.');
}

// Other applications, and a pasteboard that watches them.
struct CopiedText : testing::Test {
    static constexpr std::size_t mostBytes = 262'144;
    const lab::XServer server;
    ManualQueues queues;
    X11Pasteboard pasteboard{queues.makeQueue("session"), server.display()};
    lab::TemporaryFolder folder;
    std::vector<std::unique_ptr<lab::Process>> applications;
    Pasteboard::Types types; // as last asked about
    bool wantsText = true;

    CopiedText() { pasteboard.changeCount(); } // begins to watch

    // As a user of the program would: returns when the pasteboard has heard of it.
    void copy(const std::vector<std::string>& program, const std::string& text)
    {
        const int before = pasteboard.changeCount();
        const auto file = folder.path() / ("text" + std::to_string(applications.size()));
        lab::write(file, text);
        std::vector<std::string> command{"sh", "-c", "exec \"$@\" < \"$0\"", file.string()};
        command.insert(command.end(), program.begin(), program.end());
        applications.push_back(server.launch(command));
        ASSERT_TRUE(waitFor([&] { return pasteboard.changeCount() != before; }))
            << program.at(2) << " " << text.size();
    }

    bool waitFor(const std::function<bool()>& condition)
    {
        return lab::eventually([&] {
            queues.runReady();
            return condition();
        });
    }

    using Found = std::optional<std::optional<std::string>>; // outer: answered at all
    const Found noText{std::optional<std::string>()};
    void ask(Found& found)
    {
        pasteboard.readText(
            mostBytes,
            [this](const Pasteboard::Types& offered) {
                types = offered;
                return wantsText;
            },
            [&found](std::optional<std::string> text) { found = std::move(text); });
    }
    std::optional<std::string> text()
    {
        Found found;
        ask(found);
        EXPECT_TRUE(waitFor([&] { return found.has_value(); }));
        return found.value_or(std::nullopt);
    }
    bool offers(const char* type) const { return std::ranges::find(types, type) != types.end(); }
};

const std::string peer = lab::sourcePath("Tests/Peers/Programs/clipboard_peer.py");

TEST_F(CopiedText, comesFromApplicationsOfEveryKind)
{
    const std::vector<std::string> programs[] = {{"xclip", "-selection", "clipboard", "-in", "-quiet"},
        {"/usr/bin/python3", peer, "gtk", "copy"}, {"/usr/bin/python3", peer, "qt", "copy"}};
    const std::string texts[] = {"x", "déjà 你好\n🙂", ofSize(mostBytes, "你好，世界")};
    for (const auto& program : programs) {
        for (const auto& copied : texts) {
            copy(program, copied);
            EXPECT_TRUE(text() == copied) << program.at(2) << " " << copied.size();
            EXPECT_TRUE(offers("UTF8_STRING"));
        }
        copy(program, ofSize(300'000, "large "));
        EXPECT_EQ(text(), std::nullopt) << program.at(2);
        copy(program, "after it");
        EXPECT_EQ(text(), "after it") << program.at(2);
    }
    copy({"xclip", "-selection", "clipboard", "-in", "-quiet", "-target", "STRING"}, "d\xE9j\xE0");
    EXPECT_EQ(text(), "déjà");
    copy({"xclip", "-selection", "clipboard", "-in", "-quiet", "-target", "image/png"}, "no text");
    EXPECT_EQ(text(), std::nullopt);

    copy({"/usr/bin/python3", peer, "qt", "conceal"}, "secret");
    wantsText = false;
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_TRUE(offers("x-kde-passwordManagerHint"));
}

TEST_F(CopiedText, ofOursReachesToolkitsInPieces)
{
    const std::string large = ofSize(300'000, "你好，世界 ");
    ASSERT_TRUE(pasteboard.setText(large));
    for (const char* toolkit : {"gtk", "qt"}) {
        auto pasted = std::async(
            std::launch::async, [&] { return server.run({"/usr/bin/python3", peer, toolkit, "paste"}); });
        ASSERT_TRUE(
            waitFor([&] { return pasted.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
        EXPECT_TRUE(pasted.get().ends_with(large)) << toolkit; // after its warnings
    }
}

// An application that owns the selection, and does with requests what a test says.
struct OwnApplication {
    explicit OwnApplication(const lab::XServer& server) : x(*X11Connection::open(server.display()))
    {
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(x.get(), 0, window, x.root(), 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, 0,
            XCB_CW_EVENT_MASK, &events);
        xcb_set_selection_owner(x.get(), window, atom("CLIPBOARD"), XCB_CURRENT_TIME);
        x.settle(X11Connection::patience);
    }

    xcb_atom_t atom(std::string_view name) const
    {
        return x
            .reply<xcb_intern_atom_reply_t>(
                xcb_intern_atom(x.get(), 0, static_cast<std::uint16_t>(name.size()), name.data()),
                X11Connection::patience)
            ->atom;
    }
    std::optional<xcb_selection_request_event_t> request()
    {
        std::optional<xcb_selection_request_event_t> found;
        x.takeEvents([&](const xcb_generic_event_t& event) {
            if ((event.response_type & 0x7F) == XCB_SELECTION_REQUEST)
                found = reinterpret_cast<const xcb_selection_request_event_t&>(event);
        });
        return found;
    }
    void answer(const xcb_selection_request_event_t& to, const char* type, std::uint8_t format,
        std::uint32_t items, const void* data)
    {
        xcb_change_property(
            x.get(), XCB_PROP_MODE_REPLACE, to.requestor, to.property, atom(type), format, items, data);
        std::array<char, 32> wire{};
        const xcb_selection_notify_event_t notice{
            XCB_SELECTION_NOTIFY, 0, 0, to.time, to.requestor, to.selection, to.target, to.property};
        std::copy_n(reinterpret_cast<const char*>(&notice), sizeof notice, wire.begin());
        xcb_send_event(x.get(), 0, to.requestor, 0, wire.data());
        x.settle(X11Connection::patience);
    }

    X11Connection x;
    const xcb_window_t window = xcb_generate_id(x.get());
};

TEST_F(CopiedText, isGivenUpWhereItsOwnerFallsSilentOrTalksNonsense)
{
    Found found;
    const auto expectNothing = [&](const char* what) {
        for (int i = 0; i < 100 && !found; ++i) queues.runReady();
        EXPECT_FALSE(found) << what;
        queues.advance(std::chrono::milliseconds(4999));
        EXPECT_FALSE(found) << what;
        queues.advance(std::chrono::milliseconds(1));
        EXPECT_EQ(found, noText) << what;
        found.reset();
    };
    std::optional<OwnApplication> owner;
    std::optional<xcb_selection_request_event_t> request;
    const auto own = [&] {
        const int before = pasteboard.changeCount();
        owner.emplace(server);
        ASSERT_TRUE(waitFor([&] { return pasteboard.changeCount() != before; }));
        ask(found);
        ASSERT_TRUE(waitFor([&] { return (request = owner->request()).has_value(); }));
    };
    const auto offerText = [&] {
        own();
        const xcb_atom_t offered[] = {owner->atom("UTF8_STRING"), 0, 0xFFFF'FFFF};
        owner->answer(*request, "ATOM", 32, std::size(offered), offered);
        ASSERT_TRUE(waitFor([&] { return (request = owner->request()).has_value(); }));
    };

    own();
    EXPECT_NE(request->time, std::uint32_t{XCB_CURRENT_TIME}) << "the time of the change, as is due";
    expectNothing("silent at once");

    offerText();
    expectNothing("silent about its text");

    offerText();
    const std::uint32_t size = 100;
    owner->answer(*request, "INCR", 32, 1, &size);
    const auto addPiece = [&](const std::string& piece) {
        xcb_change_property(owner->x.get(), XCB_PROP_MODE_REPLACE, request->requestor, request->property,
            owner->atom("UTF8_STRING"), 8, static_cast<std::uint32_t>(piece.size()), piece.data());
        return owner->x.settle(X11Connection::patience);
    };
    queues.runReady();
    EXPECT_TRUE(addPiece("one "));
    expectNothing("silent in the middle");

    offerText();
    owner->answer(*request, "INCR", 32, 1, &size);
    for (std::size_t sent = 0; sent <= mostBytes && !found; sent += 60'000) {
        queues.runReady();
        addPiece(std::string(60'000, 'x'));
    }
    EXPECT_TRUE(waitFor([&] { return found.has_value(); }));
    EXPECT_EQ(found, noText) << "more than it may be, whatever its size was said to be";

    const std::tuple<const char*, std::uint8_t, std::string> nonsense[]
        = {{"UTF8_STRING", 8, "\xFF\xFE"}, {"UTF8_STRING", 32, "abcd"}, {"UTF8_STRING", 16, "abcd"}};
    for (const auto& [type, format, bytes] : nonsense) {
        found.reset();
        offerText();
        owner->answer(
            *request, type, format, static_cast<std::uint32_t>(bytes.size() * 8 / format), bytes.data());
        EXPECT_TRUE(waitFor([&] { return found.has_value(); }));
        EXPECT_EQ(found, noText) << int(format);
    }
    found.reset();
    own();
    owner.reset(); // and with it its window and the selection
    expectNothing("gone");

    copy({"xclip", "-selection", "clipboard", "-in", "-quiet"}, "and then");
    EXPECT_EQ(text(), "and then");
}

} // namespace
} // namespace pelorin
