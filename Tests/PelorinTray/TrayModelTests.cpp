#include "PelorinTray/TrayModel.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using Kind = MenuEntry::Kind;
using Action = MenuEntry::Action;

const Texts chinese(Texts::Language::chinese), english(Texts::Language::english);

// Every text, one a line, groups indented.
QString textOf(const QList<MenuEntry>& entries, const QString& indent = {})
{
    QString text;
    for (const auto& entry : entries)
        text += indent + entry.text + "\n" + textOf(entry.entries, indent + "  ");
    return text;
}

const MenuEntry* find(const QList<MenuEntry>& entries, Action action)
{
    for (const auto& entry : entries) {
        if (entry.action == action) return &entry;
        if (const auto* inside = find(entry.entries, action)) return inside;
    }
    return nullptr;
}

QByteArray statusWith(const QByteArray& members)
{
    return "{\"listening\": \"100.64.1.2:7420\", \"allowedLogins\": [\"me@example.com\"], \"session\": null, "
           "\"hostID\": null, \"testMode\": false, \"settingsProblems\": [], "
           "\"pairing\": {\"required\": true, \"reviewCode\": false, \"pending\": null, \"devices\": 0}"
        + members + "}";
}

TEST(TrayModel, tellsStateAndAccessInWords)
{
    const QByteArray off = R"("required": false, "reviewCode": false)",
                     on = R"("required": true, "reviewCode": )";
    const struct {
        const char* description;
        QByteArray status;
        HostState state;
        QStringList shown, hidden;
    } cases[] = {
        {"no host", "", HostState::trouble, {"主机没有运行", "启动主机"}, {"配对新手机…", "停止主机"}},
        {"no JSON", "{\"pairing\": ", HostState::trouble, {"主机没有运行"}, {}},
        {"other types", R"({"pairing": 1, "session": "x", "listening": {}, "settingsProblems": 4})",
            HostState::trouble, {"等待 Tailscale"}, {}},
        {"waiting", statusWith(""), HostState::waiting,
            {"等待手机连接", "地址：100.64.1.2:7420", "允许：me@example.com", "停止主机"},
            {"测试模式", "未启用配对", "审核模式", "断开连接", "启动主机"}},
        {"own whois unknown", statusWith(R"(, "allowedLogins": [])"), HostState::waiting,
            {"允许：未确定（经 Tailscale 的连接会被拒绝）"}, {}},
        {"test mode", statusWith(R"(, "testMode": true, "allowedLogins": [], "pairing": {)" + off + "}"),
            HostState::waiting,
            {"测试模式：只监听 127.0.0.1，不校验身份",
                "未启用配对（requirePairing 关闭或处于测试模式），只校验 Tailscale 身份"},
            {"未确定"}},
        {"review", statusWith(R"(, "pairing": {)" + on + "true}"), HostState::waiting,
            {"审核模式：配对链接长期有效，只用于演示 Mac", "复制审核用配对链接"}, {}},
        {"by the service alone", statusWith(R"(, "listening": null, "hostID": "abc")"), HostState::waiting,
            {"远程连接：已登记（abc）"}, {"地址："}},
        {"no way in", statusWith(R"(, "listening": null)"), HostState::trouble, {"等待 Tailscale"}, {}},
        {"bad settings", statusWith(R"(, "settingsProblems": ["写错了\nmalformed"])"), HostState::trouble,
            {"设置：写错了\n"}, {"malformed"}},
    };
    for (const auto& [description, status, state, shown, hidden] : cases) {
        SCOPED_TRACE(description);
        TrayModel model(chinese);
        model.status = status;
        EXPECT_EQ(model.state(), state);
        const QString text = textOf(model.menu());
        for (const auto& part : shown)
            EXPECT_TRUE(text.contains(part)) << part.toStdString() << "\n" << text.toStdString();
        for (const auto& part : hidden) EXPECT_FALSE(text.contains(part)) << part.toStdString();
    }
}

TEST(TrayModel, showsTheSessionAndNamesAsTheyAre)
{
    TrayModel model(english);
    model.status = statusWith(
        R"(, "session": {"client": "a %2 \"phone\"\n\u202Eb", "peer": "me&you %1", "path": "relay",
        "display": "main", "fps": 58, "mbps": 8.34, "targetMbps": 12, "drops": 3,
        "stages": {"captureMs": 1.25, "convertMs": 2, "encodeMs": 3, "sendMs": 0.04}})");
    EXPECT_EQ(model.state(), HostState::connected);
    const QString text = textOf(model.menu());
    EXPECT_TRUE(text.contains("Connected: a %2 \"phone\" b\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("me&you %1 · relay\nmain · 58 fps · 8.3/12.0 Mbit/s · 3 dropped\n"))
        << text.toStdString();
    EXPECT_TRUE(text.contains("encode 3.0 · send 0.0 ms")) << text.toStdString();
    EXPECT_NE(find(model.menu(), Action::endSession), nullptr);
    EXPECT_EQ(TrayModel::label(QString(5000, 'x')).size(), TrayModel::mostLetters);
}

TEST(TrayModel, listsPhonesConnectionsAndAgents)
{
    TrayModel model(english);
    model.status = statusWith("");
    const QString nothing = textOf(model.menu());
    for (const char* text :
        {"  No phone is paired", "  Nobody has connected yet", "  No coding agent is at work"})
        EXPECT_TRUE(nothing.contains(text)) << text;

    model.devices
        = R"({"devices": [{"id": "dev-1", "name": "mine", "pairedAt": "2026-01-02T03:04:05Z"}, 7]})";
    model.connections = R"({"connections": ["2026-11-23 10:00:00 rejected x", "older"]})";
    model.agents = R"({"tasks": [{"phase": "waiting", "project": "p", "title": "t", "agent": "claude"}],
        "waiting": 1, "running": 2, "idle": 0, "claude": {"session": {"percent": 41.6}}})";
    const auto menu = model.menu();
    const QString text = textOf(menu);
    for (const char* part : {"  mine\n    Paired 2026-01-02", "  2026-11-23 10:00:00 rejected x\n  older\n",
             "Agents: 1 waiting · 2 running · 0 idle\n  waiting · p · t\n  claude session 42 %"})
        EXPECT_TRUE(text.contains(part)) << part << "\n" << text.toStdString();
    ASSERT_NE(find(menu, Action::removePhone), nullptr);
    EXPECT_EQ(find(menu, Action::removePhone)->id, "dev-1");
}

} // namespace
} // namespace pelorin
