#include "PelorinCore/AgentDeck/AgentDeckState.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unordered_set>

using namespace pelorin;
using namespace std::chrono_literals;
using nlohmann::json;

namespace {

constexpr DeckDate newYear2001{978'307'200s};

AgentDeckState full()
{
    return {{{"claude:1", AgentKind::claude, "修一个错误", "pelorin", AgentPhase::waiting, "Bash",
                 newYear2001 + 10s},
                {"codex:2", AgentKind::codex, "say \"hi\"", "site", AgentPhase::running, std::nullopt,
                    newYear2001 + 20'250ms},
                {"codex:3", AgentKind::codex, "", "", AgentPhase::idle, std::nullopt, newYear2001 - 1us}},
        1, 1, 1, AgentUsage{UsageWindow{23.5, newYear2001 + 5h}, UsageWindow{100, std::nullopt}},
        AgentUsage{std::nullopt, UsageWindow{0, newYear2001 + 24h}}, newYear2001 + 800'000'000'123'457us};
}

// The text of a state after one change to its JSON.
template <class Change>
std::string changed(const Change& change)
{
    json object = json::parse(full().encode());
    change(object);
    return object.dump();
}

} // namespace

TEST(AgentDeck, isWrittenWithTheFieldsNamesAndDatesAsFoundationHasThem)
{
    const json object = json::parse(full().encode());
    EXPECT_EQ(object["tasks"][0],
        json::parse(R"({"id": "claude:1", "agent": "claude", "title": "修一个错误", "project": "pelorin",
            "phase": "waiting", "detail": "Bash", "since": 10.0})"));
    EXPECT_EQ(object["claude"],
        json::parse(R"({"session": {"percent": 23.5, "resetsAt": 18000.0}, "weekly": {"percent": 100.0}})"));
    EXPECT_EQ(object["codex"], json::parse(R"({"weekly": {"percent": 0.0, "resetsAt": 86400.0}})"));
    EXPECT_EQ(object["running"], 1);
    EXPECT_EQ(json::parse(full().encode(DateCoding::secondsSince1970))["tasks"][0]["since"], 978'307'210.0);
}

TEST(AgentDeck, leavesOutWhatIsAbsent)
{
    const AgentDeckState empty{{}, 0, 0, 0, std::nullopt, std::nullopt, newYear2001};
    EXPECT_EQ(json::parse(empty.encode()),
        json::parse(R"({"tasks": [], "running": 0, "waiting": 0, "idle": 0, "updatedAt": 0.0})"));
    EXPECT_FALSE(json::parse(full().encode())["tasks"][1].contains("detail"));
}

TEST(AgentDeck, comesBackAsItWas)
{
    for (const auto coding : {DateCoding::secondsSince2001, DateCoding::secondsSince1970}) {
        EXPECT_EQ(AgentDeckState::decode(full().encode(coding, 2), coding), full());
        for (int micros = 0; micros < 1000; ++micros) {
            AgentDeckState state{{}, 0, 0, 0, {}, {}, newYear2001 + 817'000'000s + micros * 999us};
            ASSERT_EQ(AgentDeckState::decode(state.encode(coding), coding), state) << micros;
        }
    }
}

TEST(AgentDeck, isReadWholeOrNotAtAll)
{
    EXPECT_EQ(AgentDeckState::decode(changed([](json& state) { state["new"] = {{"deep", {1, 2}}}; })), full())
        << "of a later version";
    EXPECT_TRUE(AgentDeckState::decode(changed([](json& state) { state["claude"] = nullptr; })));

    EXPECT_FALSE(AgentDeckState::decode(""));
    EXPECT_FALSE(AgentDeckState::decode("[]"));
    EXPECT_FALSE(AgentDeckState::decode(full().encode().substr(0, 100)));
    EXPECT_FALSE(AgentDeckState::decode(full().encode() + std::string(AgentDeckState::maxSize, ' ')));
    for (const char* key : {"tasks", "running", "waiting", "idle", "updatedAt"})
        EXPECT_FALSE(AgentDeckState::decode(changed([&](json& state) { state.erase(key); }))) << key;
    for (const char* key : {"id", "agent", "title", "project", "phase", "since"})
        EXPECT_FALSE(AgentDeckState::decode(changed([&](json& state) { state["tasks"][0].erase(key); })))
            << key;
    const struct {
        const char* place;
        json value;
    } wrong[] = {{"/tasks", json::object()}, {"/tasks/0", "task"}, {"/tasks/0/agent", "gemini"},
        {"/tasks/0/phase", "Running"}, {"/tasks/0/phase", 1}, {"/tasks/0/detail", 1},
        {"/tasks/0/since", "2026-01-01T00:00:00Z"}, {"/tasks/0/since", 1e300}, {"/running", 0.5},
        {"/running", 1ULL << 40}, {"/running", ~0ULL}, {"/updatedAt", nullptr}, {"/claude", json::array()},
        {"/claude/session", 3}, {"/claude/session/percent", "3"}, {"/claude/session/resetsAt", "soon"}};
    for (const auto& [place, value] : wrong)
        EXPECT_FALSE(AgentDeckState::decode(changed([&](json& state) {
            state[json::json_pointer(place)] = value;
        }))) << place
             << " " << value;
}

TEST(AgentDeck, writesATitleThatWasCutInsideACharacter)
{
    AgentDeckState state = full();
    state.tasks[0].title = "修\xE4\xB8";
    const auto decoded = AgentDeckState::decode(state.encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->tasks[0].title, "修\xEF\xBF\xBD");
}

TEST(AgentDeck, differsAndHashesByEveryField)
{
    std::vector<AgentDeckState> states(17, full());
    states[1].updatedAt += 1us;
    states[2].running = 2;
    states[3].waiting = 2;
    states[4].idle = 2;
    states[5].claude.reset();
    std::swap(states[6].claude, states[6].codex);
    states[7].claude->session.reset();
    states[8].claude->weekly->percent = 99;
    states[9].codex->weekly->resetsAt.reset();
    states[10].tasks.pop_back();
    std::swap(states[11].tasks[0], states[11].tasks[1]);
    states[12].tasks[1].detail = "";
    states[13].tasks[0].agent = AgentKind::codex;
    states[14].tasks[0].phase = AgentPhase::idle;
    states[15].tasks[0].since += 1us;
    std::swap(states[16].tasks[0].title, states[16].tasks[0].project);
    std::unordered_set<std::size_t> hashes;
    for (std::size_t i = 0; i < states.size(); ++i) {
        EXPECT_TRUE(hashes.insert(std::hash<AgentDeckState>{}(states[i])).second) << i;
        for (std::size_t j = 0; j < states.size(); ++j) EXPECT_EQ(states[i] == states[j], i == j) << i << j;
    }
    EXPECT_EQ(std::hash<AgentDeckState>{}(full()), std::hash<AgentDeckState>{}(full()));
}
