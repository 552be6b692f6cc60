#pragma once

#include "PelorinPhone/PhoneSession.h"
#include "PelorinPhone/RemoteConnect.h"
#include "PelorinViewer/ScriptPlayer.h"
#include "PelorinViewer/ViewerReport.h"

namespace pelorin {

// The program's exit codes.
enum class ViewerExit {
    fine = 0,
    usage = 2,
    cannotConnect = 3,
    refused = 4, // by the host, with its text
    failed = 5, // an expectation of the script, a time limit, a file that can't be written
    lost = 6, // the connection broke, or what is there is no host
};

struct ViewerResult {
    ViewerExit exit = ViewerExit::fine;
    std::string message; // what went wrong, for people
    ViewerReport report;
};

// One run of the viewer, with or without a window: connects, holds the session, plays the script or measures,
// and says how it went. Queue: the session's. Owns the session and all that is played on it. Owned by the
// program.
class Viewer {
public:
    Viewer(QueueRef queue, QueueRef decodeQueue, ViewerOptions options, std::vector<ScriptStep> script);

    // On the queue.
    std::function<void(const ReceivedPicture&)> onPicture;
    std::function<void(const PhoneFigures&)> onSecond;
    std::function<void(std::string hostName)> onHello; // again for a session that takes a lost one's place
    std::function<void()> onLost; // another session is being tried for
    std::function<void(std::string path)> onPath; // of a remote session
    std::function<void(std::string)> onClipboard;
    std::function<void(const CursorPredictor&)>
        onPointer; // never when headless, as all that is of the cursor
    std::function<void(message::CursorImage)> onCursorImage;
    std::function<void(ViewerResult)> onFinished; // once; may destroy us

    // For so long as patience, a host that does not let us in yet, or can't be reached, is tried again: one
    // that has just paired us takes a few seconds to listen with our key. For so long as resumption, a
    // session that was lost is begun anew.
    void start(Connect connect, Duration patience = {}, Duration resumption = {});
    // For a connect that goes through a rendezvous service.
    RemoteReports remoteReports();
    void networkChanged(); // the machine's interfaces or routes: what waits is tried now
    void stop(); // as the user asks
    void send(const Message& message); // without effect while there is no session
    void drew(Duration drawing);

private:
    // What has to be done before the run ends by itself; with no such thing it goes on.
    enum class Goal { frames, seconds, script, measurement };

    void attempt();
    bool triesAgain();
    bool triesToResume();
    bool resumes();
    void begin();
    void connected(Result<std::unique_ptr<Channel>, NetError> channel);
    void greeted(const std::string& hostName);
    void showed(const ReceivedPicture& picture);
    void ended(const PhoneSession::End& end);
    std::string explained(const PhoneSession::End& end) const;
    void startMeasurement();
    void reached(Goal goal);
    Result<void, std::string> saveScreenshot(const std::string& file);
    void finish(ViewerExit exit, std::string message = {});

    QueueRef queue;
    QueueRef decodeQueue;
    ViewerOptions options;
    Log log{"viewer"};
    std::vector<Goal> openGoals;
    SteadyTime startedAt;
    SteadyTime attemptedAt; // the latest time
    SteadyTime patientUntil;
    Duration resumption{};
    std::optional<SteadyTime> lostAt; // while a lost session is to be resumed
    int tries = 0; // to resume it
    bool hasBegun = false; // what is to be done on a session
    std::optional<PhoneConnector::Failure> remoteFailure; // of the latest attempt
    Connect connect;
    Subscription connecting;
    Subscription retryTimer; // the next attempt, or the time for the one that runs
    std::unique_ptr<PhoneSession> session;
    ScriptPlayer script;
    std::optional<LatencyMeasurement> latency;
    std::optional<MotionMeasurement> motion;
    std::optional<DecodedPicture> last;
    int frames = 0;
    ViewerReport report;
    Subscription secondsTimer;
    Subscription timeoutTimer;
    bool isFinished = false;
    Lifetime lifetime;
};

} // namespace pelorin
