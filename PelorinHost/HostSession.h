#pragma once

#include "PelorinCore/Wire/FrameCodec.h"
#include "PelorinHost/HostConfig.h"
#include "PelorinHost/Platform/HostPlatform.h"
#include "PelorinHost/Screen/ScreenStreamer.h"
#include "PelorinHost/Screen/VirtualDisplayManager.h"
#include "PelorinHost/Session/MessageRules.h"
#include "PelorinHost/Session/SessionEnd.h"
#include "PelorinHost/Session/SessionOutlet.h"
#include "PelorinHost/Session/SessionStatistics.h"
#include "PelorinHost/Trust/PairingStore.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/Confined.h"

namespace pelorin {

// What every session needs of the program around it, and outlives it.
struct SessionSurroundings {
    HostPlatform& platform;
    QueueMaker& queues;
    PairingStore& pairing;
    std::optional<std::uint32_t> defaultDisplay; // where the phone asks for no particular one
    // Makes displays of a phone's own shape; without it there are none.
    std::shared_ptr<Confined<VirtualDisplayManager>> virtualDisplays = nullptr;
};

// One phone's connection from admission to its end: reads its messages, answers hello, and from then on owns
// everything that shows it the desktop and lets it act there. Queue: "dev.pelorin.host.session", one for
// each; everything here happens on it, destruction included, which is safe at any moment. Owned by the
// HostServer.
class HostSession {
public:
    HostSession(SessionSurroundings surroundings, HostConfig config, std::unique_ptr<Channel> connection,
        std::string peer, QueueRef queue);
    ~HostSession();

    // All on the queue; they may destroy the session.
    std::function<void(HostSession&, std::optional<std::string> reason)> onClose; // once, when it ends
    std::function<void(const SessionFigures&)> onStats; // once a second
    std::function<void(HostSession&)> onHello; // a phone has been accepted
    std::function<void(HostSession&)> onOptionsChanged;

    void start();
    // Tells the phone, lets go of everything it held and closes. Later calls do nothing.
    void end(SessionEnd how);

    SessionFigures figures() const; // the latest
    // What the phone proved on its way in: "dev-…" once it is paired, "pair-…" to become so, empty without
    // TLS.
    std::string peerIdentity() const { return connection->peerIdentity(); }

    const std::string peer; // as shown to the user: login or device name, or "本机（测试模式）"
    const std::string peerAddress;
    EndKind endKind = EndKind::dropped; // how it ended
    SessionOptions options; // the phone's latest
    bool saidHello = false;
    bool tlsFailed = false; // the connection ended in its handshake

private:
    struct Running;

    void connectionClosed(const std::optional<NetError>& error);
    void receive(ByteView bytes);
    SessionState state() const;
    void handle(Message& message);

    void on(const message::Hello& hello);
    void on(const message::Ping& ping);
    void on(const message::Bye&);
    void on(const message::RequestKeyframe&);
    void on(const message::SetViewport& change);
    void on(const message::SetDisplay& change);
    void on(const message::ClientReport& report);
    void on(const message::SetOptions& change);
    void on(const message::PasteText& paste);
    void on(const message::PairRequest& request);
    void on(const message::LiveActivityRegister&);
    template <class InputMessage>
    void on(const InputMessage& input);

    bool isRemoved() const;

    void startStreaming();
    void startCursor();
    void shareClipboard();
    ScreenStreamer::Settings streamSettings();
    void captureIs(const message::DisplayInfo& info);

    void arrangeDisplay();
    void chooseDisplay();
    void switchDisplay();
    void watchDisplays();
    bool refreshDisplays();

    void statisticsTick();
    void checkPath();

    SessionSurroundings surroundings;
    HostConfig config;
    std::unique_ptr<Channel> connection;
    QueueRef queue;
    Log log{"session"};
    FrameDecoder decoder;
    SessionOutlet outlet;
    bool closed = false;
    std::unique_ptr<Running> running; // from hello to the end
    Lifetime lifetime;
};

} // namespace pelorin
