#pragma once

#include <QString>

namespace pelorin {

// Every text of menu and windows, in both languages; %1, %2 … are filled in.
struct Phrase {
    const char* chinese;
    const char* english;
};

namespace texts {

inline constexpr Phrase hostAbsent{"主机没有运行", "The host is not running"};
inline constexpr Phrase noAddress{"等待 Tailscale", "Waiting for Tailscale"};
inline constexpr Phrase waiting{"等待手机连接", "Waiting for a phone"};
inline constexpr Phrase connected{"已连接：%1", "Connected: %1"};
inline constexpr Phrase address{"地址：%1", "Address: %1"};
inline constexpr Phrase remote{"远程连接：已登记（%1）", "From anywhere: registered (%1)"};
inline constexpr Phrase access{"允许：%1", "Access: %1"};
inline constexpr Phrase ownWhoisUnknown{
    "未确定（经 Tailscale 的连接会被拒绝）", "Not known yet (connections over Tailscale are refused)"};
inline constexpr Phrase testMode{"测试模式：只监听 127.0.0.1，不校验身份",
    "Test mode: listens on 127.0.0.1 only, checks nobody's identity"};
inline constexpr Phrase pairingOff{"未启用配对（requirePairing 关闭或处于测试模式），只校验 Tailscale 身份",
    "Pairing is off (requirePairing, or test mode): only the Tailscale identity counts"};
inline constexpr Phrase reviewMode{"审核模式：配对链接长期有效，只用于演示 Mac",
    "Review mode: the pairing link stays valid, for demonstration machines only"};
inline constexpr Phrase copyReviewLink{"复制审核用配对链接", "Copy the review link"};
inline constexpr Phrase reviewLinkCopied{"已复制审核用配对链接", "Review link copied"};
inline constexpr Phrase noReviewLink{"没有审核用配对链接：host.json 的 reviewPairingCode 要正好 32 字节",
    "There is no review link: reviewPairingCode in host.json needs exactly 32 bytes"};
inline constexpr Phrase settingsProblem{"设置：%1", "Settings: %1"};

inline constexpr Phrase sessionPath{"%1 · %2", "%1 · %2"};
inline constexpr Phrase sessionFigures{
    "%1 · %2 fps · %3/%4 Mbit/s · 丢帧 %5", "%1 · %2 fps · %3/%4 Mbit/s · %5 dropped"};
inline constexpr Phrase sessionStages{
    "采集 %1 · 转换 %2 · 编码 %3 · 发送 %4 ms", "Capture %1 · convert %2 · encode %3 · send %4 ms"};
inline constexpr Phrase endSession{"断开连接", "End the session"};

inline constexpr Phrase pairNewPhone{"配对新手机…", "Pair a new phone…"};
inline constexpr Phrase pairedPhones{"已配对的手机", "Paired phones"};
inline constexpr Phrase noPhones{"还没有配对的手机", "No phone is paired"};
inline constexpr Phrase pairedAt{"配对于 %1", "Paired %1"};
inline constexpr Phrase removePhone{"移除…", "Remove…"};
inline constexpr Phrase removeQuestion{"移除「%1」？它正在进行的连接会立刻断开，以后要重新配对。",
    "Remove “%1”? A session of its ends at once, and it has to be paired anew."};
inline constexpr Phrase remove{"移除", "Remove"};
inline constexpr Phrase cancel{"取消", "Cancel"};
inline constexpr Phrase recentConnections{"最近的连接", "Recent connections"};
inline constexpr Phrase noConnections{"还没有连接记录", "Nobody has connected yet"};
inline constexpr Phrase agents{
    "编程助手：%1 等待 · %2 运行 · %3 空闲", "Agents: %1 waiting · %2 running · %3 idle"};
inline constexpr Phrase noAgents{"没有编程助手在运行", "No coding agent is at work"};
inline constexpr Phrase agentWaiting{"等待", "waiting"};
inline constexpr Phrase agentRunning{"运行", "running"};
inline constexpr Phrase agentIdle{"空闲", "idle"};
inline constexpr Phrase usageSession{"%1 本次 %2%", "%1 session %2 %"};
inline constexpr Phrase usageWeekly{"%1 本周 %2%", "%1 week %2 %"};

inline constexpr Phrase startHost{"启动主机", "Start the host"};
inline constexpr Phrase stopHost{"停止主机", "Stop the host"};
inline constexpr Phrase launchAtLogin{"登录时启动", "Launch at login"};
inline constexpr Phrase about{"关于 Pelorin", "About Pelorin"};
inline constexpr Phrase aboutText{"Pelorin %1\n让配对过的手机看到并操作这台电脑。",
    "Pelorin %1\nMakes this desktop reachable from a paired phone."};
inline constexpr Phrase quit{"退出", "Quit"};

inline constexpr Phrase pairingTitle{"配对新手机", "Pair a new phone"};
inline constexpr Phrase scan{"用 iPhone 相机或 Pelorin 扫码配对，%1内有效，只能用一次",
    "Scan with the iPhone's camera or Pelorin; valid for %1, for one phone"};
inline constexpr Phrase validity{"%1 分 %2 秒", "%1 min %2 s"};
inline constexpr Phrase qrCode{"配对二维码", "Pairing QR code"};
inline constexpr Phrase pairingLink{"配对链接", "Pairing link"};
inline constexpr Phrase copyLink{"复制链接", "Copy link"};
inline constexpr Phrase linkCopied{"已复制链接", "Link copied"};
inline constexpr Phrase expired{"配对码已过期或已经用过。请点「重新生成」再扫一次",
    "The code has expired or was used. Press “New code” and scan again"};
inline constexpr Phrase newCode{"重新生成", "New code"};
inline constexpr Phrase paired{"「%1」已配对", "“%1” is paired"};
inline constexpr Phrase pairedPicture{"配对成功", "Paired"};
inline constexpr Phrase close{"关闭", "Close"};
inline constexpr Phrase cannotPair{
    "没法配对：远程连接已在配置文件里关闭（host.json 的 rendezvous），这台 Mac 也没有 Tailscale",
    "Cannot pair: the remote way is turned off (rendezvous in host.json), and this machine has no Tailscale"};

} // namespace texts

// Chooses between them once.
class Texts {
public:
    enum class Language { chinese, english };
    explicit Texts(Language newLanguage = ofLocale()) : language(newLanguage) {}
    static Language ofLocale(); // Chinese where the locale's texts are Chinese, else English

    QString operator()(const Phrase& phrase) const;
    // A host's text for people is Chinese, English below it or not at all.
    QString ofHost(const QString& text) const;

private:
    Language language;
};

} // namespace pelorin
