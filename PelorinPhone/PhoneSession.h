#pragma once

#include "PelorinCore/Wire/FrameCodec.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Log.h"
#include "PelorinPhone/CursorPredictor.h"
#include "PelorinPhone/HostClock.h"
#include "PelorinPhone/PhoneStatistics.h"
#include "PelorinPhone/VideoReceiver.h"

#include <deque>

namespace pelorin {

// One session as the phone sees it: says hello, keeps the session alive, reports, decodes the video, carries
// input. Before the host's helloAck only that and an error are listened to. Everything, callbacks included,
// is on the queue; any callback may destroy the session. Owns the channel and the video receiver.
class PhoneSession {
public:
    struct Settings {
        std::string clientName;
        Viewport viewport;
        DisplaySettings display;
        ClientCapabilities capabilities; // reading frame stamps is added to them
    };

    // Why a session ended, when it was not our own doing.
    struct End {
        enum class Kind {
            refused, // the host sent an error: code and its text for the user
            incompatible, // the host speaks another protocol version
            notLetIn, // TLS did not come about, see handshake
            dropped, // the connection closed, broke, or fell silent
            protocolError, // what came is not our protocol
        };
        Kind kind = Kind::dropped;
        std::optional<ErrorCode> code{}; // refused
        std::string text{};
        std::optional<PelorinTLS::HandshakeFailure> handshake{}; // notLetIn
        bool isUnanswered = false; // the host said nothing that a host says, as one does that expects TLS
    };

    // The channel is not started yet; decodeQueue is for the decoder alone.
    PhoneSession(std::unique_ptr<Channel> channel, QueueRef queue, QueueRef decodeQueue, Settings settings);
    ~PhoneSession(); // closes at once, as if the phone had lost its network

    std::function<void(std::string hostName)> onHello;
    std::function<void(const ReceivedPicture&)> onPicture;
    std::function<void(message::VideoFormat)> onFormat;
    std::function<void(message::DisplayInfo)> onDisplayInfo;
    std::function<void(std::vector<DisplayDescriptor>)> onDisplayList;
    std::function<void(const CursorPredictor&)> onPointer; // for a phone that draws it: it is elsewhere now
    std::function<void(message::CursorImage)> onCursorImage;
    std::function<void(std::string)> onPathInfo;
    std::function<void(std::string)> onClipboard;
    std::function<void(const PhoneFigures&)> onSecond; // the second that just passed
    std::function<void(End)> onEnd; // at most once, and not after leave

    void start(); // says hello
    // Input, options, viewport and display changes; whatever a phone may send after hello. Without effect
    // before the host's answer and after the end.
    void send(const Message& message);
    void leave(); // says bye; nothing is called back from here on

    void drew(Duration drawing); // how long the last picture took to the screen
    PhoneFigures total() const;
    void restartFigures(); // the total counts from here

private:
    enum class State { created, greeting, running, ended };

    void received(ByteView bytes);
    void closed(const std::optional<NetError>& error);
    void handle(Message message);
    void handleGreeting(Message message);
    void handle(message::HelloAck message);
    void handle(const message::Pong& message);
    void handle(const message::Error& message);
    void pointerChanged();
    void showed(const ReceivedPicture& picture);
    void needKeyframe();
    void keyframePauseEnded();
    void everySecond();
    void report(const PhoneFigures& figures);
    void ping();
    void end(End::Kind kind, std::string text);
    void end(End how);
    void close();
    void write(const Message& message);

    std::unique_ptr<Channel> channel;
    QueueRef queue;
    QueueRef decodeQueue;
    Settings settings;
    Log log{"phone"};
    State state = State::created;
    bool isAnswered = false; // by anything that is a message
    FrameDecoder decoder;
    std::optional<VideoReceiver> video;
    HostClock hostClock;
    PhoneStatistics statistics;
    CursorPredictor pointer;

    struct SentPing {
        std::uint32_t id;
        SteadyTime at;
    };
    std::deque<SentPing> unansweredPings; // oldest first
    std::uint32_t nextPingID = 1;
    SteadyTime countedSince; // what the total counts
    SteadyTime lastTickAt;
    SteadyTime lastHeardAt;
    Subscription secondTimer;
    Subscription keyframePause; // running: a request was just sent
    bool wantsKeyframe = false; // another request is due when the pause ends
    Lifetime lifetime;
};

} // namespace pelorin
