#include "PelorinTray/TrayModel.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

namespace pelorin {
namespace {

using Kind = MenuEntry::Kind;
using Action = MenuEntry::Action;

QJsonObject parse(const QByteArray& answer)
{
    return QJsonDocument::fromJson(answer).object();
}

QString textIn(const QJsonValue& object, const char* key)
{
    return TrayModel::label(object[QLatin1String(key)].toString());
}

QString number(const QJsonValue& object, const char* key, int decimals)
{
    return QString::number(object[QLatin1String(key)].toDouble(), 'f', decimals);
}

MenuEntry line(const QString& text)
{
    return {Kind::line, text};
}

MenuEntry action(const QString& text, Action what, bool isOn = true)
{
    return {Kind::action, text, what, {}, {}, isOn};
}

MenuEntry group(const QString& text, QList<MenuEntry> entries, const QString& whenEmpty)
{
    if (entries.isEmpty()) entries = {line(whenEmpty)};
    return {Kind::group, text, Action::none, {}, {}, true, entries};
}

const MenuEntry separator{Kind::separator, {}};

bool isReachable(const QJsonObject& status)
{
    return status.contains("pairing");
}

bool hasWayIn(const QJsonObject& status)
{
    return status["listening"].isString() || status["hostID"].isString();
}

QString headline(const QJsonObject& status, const Texts& say)
{
    if (!isReachable(status)) return say(texts::hostAbsent);
    if (status["session"].isObject()) return say(texts::connected).arg(textIn(status["session"], "client"));
    return say(hasWayIn(status) ? texts::waiting : texts::noAddress);
}

QString accessLine(const QJsonObject& status, const Texts& say)
{
    if (status["testMode"].toBool()) return say(texts::testMode);
    QStringList logins;
    for (const auto& login : status["allowedLogins"].toArray()) logins << login.toString();
    return TrayModel::label(
        say(texts::access).arg(logins.isEmpty() ? say(texts::ownWhoisUnknown) : logins.join(", ")));
}

QList<MenuEntry> hostLines(const QJsonObject& status, const Texts& say)
{
    QList<MenuEntry> lines;
    if (status["listening"].isString()) lines << line(say(texts::address).arg(textIn(status, "listening")));
    if (status["hostID"].isString()) lines << line(say(texts::remote).arg(textIn(status, "hostID")));
    lines << line(accessLine(status, say));
    if (!status["pairing"]["required"].toBool()) lines << line(say(texts::pairingOff));
    for (const auto& problem : status["settingsProblems"].toArray())
        lines << line(say(texts::settingsProblem).arg(TrayModel::label(say.ofHost(problem.toString()))));
    if (status["pairing"]["reviewCode"].toBool())
        lines << line(say(texts::reviewMode)) << action(say(texts::copyReviewLink), Action::copyReviewLink);
    return lines;
}

QList<MenuEntry> sessionLines(const QJsonValue& session, const Texts& say)
{
    if (!session.isObject()) return {};
    const QJsonValue stages = session["stages"];
    // All at once: a name that has "%1" in it must stay as it is.
    return {separator, line(say(texts::sessionPath).arg(textIn(session, "peer"), textIn(session, "path"))),
        line(say(texts::sessionFigures)
                .arg(textIn(session, "display"), number(session, "fps", 0), number(session, "mbps", 1),
                    number(session, "targetMbps", 1), number(session, "drops", 0))),
        line(say(texts::sessionStages)
                .arg(number(stages, "captureMs", 1), number(stages, "convertMs", 1),
                    number(stages, "encodeMs", 1), number(stages, "sendMs", 1))),
        action(say(texts::endSession), Action::endSession)};
}

MenuEntry phoneList(const QByteArray& answer, const Texts& say)
{
    QList<MenuEntry> phones;
    for (const auto& device : parse(answer)["devices"].toArray()) {
        const auto when = QDateTime::fromString(device.toObject()["pairedAt"].toString(), Qt::ISODate);
        const QString name = textIn(device, "name");
        MenuEntry removal = action(say(texts::removePhone), Action::removePhone);
        removal.id = device.toObject()["id"].toString();
        removal.name = name;
        phones << group(name,
            {line(say(texts::pairedAt).arg(when.toLocalTime().toString("yyyy-MM-dd HH:mm"))), removal}, {});
    }
    return group(say(texts::pairedPhones), phones, say(texts::noPhones));
}

MenuEntry connectionList(const QByteArray& answer, const Texts& say)
{
    QList<MenuEntry> lines;
    for (const auto& text : parse(answer)["connections"].toArray())
        lines << line(TrayModel::label(text.toString()));
    return group(say(texts::recentConnections), lines, say(texts::noConnections));
}

QString phaseName(const QString& phase, const Texts& say)
{
    if (phase == "waiting") return say(texts::agentWaiting);
    return say(phase == "running" ? texts::agentRunning : texts::agentIdle);
}

MenuEntry agentList(const QByteArray& answer, const Texts& say)
{
    const QJsonObject deck = parse(answer);
    QList<MenuEntry> lines;
    for (const auto& task : deck["tasks"].toArray()) {
        QStringList parts{phaseName(task.toObject()["phase"].toString(), say), textIn(task, "project"),
            textIn(task, "title"), textIn(task, "detail")};
        parts.removeAll(QString());
        lines << line(TrayModel::label(parts.join(" · ")));
    }
    for (const char* agent : {"claude", "codex"}) {
        const QJsonValue usage = deck[QLatin1String(agent)];
        if (usage["session"].isObject())
            lines << line(say(texts::usageSession).arg(agent, number(usage["session"], "percent", 0)));
        if (usage["weekly"].isObject())
            lines << line(say(texts::usageWeekly).arg(agent, number(usage["weekly"], "percent", 0)));
    }
    const QString heading
        = say(texts::agents)
              .arg(number(deck, "waiting", 0), number(deck, "running", 0), number(deck, "idle", 0));
    return group(heading, lines, say(texts::noAgents));
}

} // namespace

bool MenuEntry::operator==(const MenuEntry& other) const = default;

QString TrayModel::label(const QString& text)
{
    QString label;
    for (const QChar letter : text.left(4 * mostLetters)) {
        // Marks that turn the direction of writing would reach beyond the name they came with.
        if (letter.category() == QChar::Other_Format) continue;
        label += letter.isPrint() || letter.isSurrogate() ? letter : QChar(' ');
    }
    label = label.simplified();
    if (label.size() > mostLetters) label = label.left(mostLetters - 1) + QChar(0x2026);
    return label;
}

HostState TrayModel::state() const
{
    const QJsonObject host = parse(status);
    if (!isReachable(host)) return HostState::trouble;
    if (host["session"].isObject()) return HostState::connected;
    const bool isSound = hasWayIn(host) && host["settingsProblems"].toArray().isEmpty();
    return isSound ? HostState::waiting : HostState::trouble;
}

QString TrayModel::summary() const
{
    const QJsonObject host = parse(status);
    QStringList lines{"Pelorin · " + headline(host, say)};
    if (const auto session = sessionLines(host["session"], say); session.size() > 2) lines << session[2].text;
    return lines.join('\n');
}

QList<MenuEntry> TrayModel::menu() const
{
    const QJsonObject host = parse(status);
    const bool isThere = isReachable(host);
    QList<MenuEntry> menu{line(headline(host, say))};
    if (isThere) {
        menu << hostLines(host, say) << sessionLines(host["session"], say) << separator
             << action(say(texts::pairNewPhone), Action::pair, host["pairing"]["required"].toBool())
             << phoneList(devices, say) << connectionList(connections, say) << agentList(agents, say);
    }
    menu << separator
         << (isThere ? action(say(texts::stopHost), Action::stopHost)
                     : action(say(texts::startHost), Action::startHost))
         << MenuEntry{Kind::toggle, say(texts::launchAtLogin), Action::launchAtLogin, {}, {}, launchesAtLogin}
         << action(say(texts::about), Action::about) << action(say(texts::quit), Action::quit);
    return menu;
}

} // namespace pelorin
