#pragma once

#include "PelorinHost/Agents/AgentMonitor.h"
#include "PelorinHost/Agents/CodexDatabase.h"
#include "PelorinHost/Agents/CodexRecords.h"
#include "PelorinHost/Agents/LineFile.h"
#include "PelorinHost/Agents/Oddities.h"
#include "PelorinHost/Platform/FolderWatch.h"

namespace pelorin {

// The threads of Codex that something happened in of late: from their rollouts, which it appends to as it
// works. Its database gives titles, says what was put away, and leads to old rollouts that go on. That a
// thread waits for the user is written nowhere; it shows as running. Queue: the one given. Owned by the
// AgentDeckKeeper.
class CodexMonitor final : public AgentMonitor {
public:
    // So often at most is the database asked.
    static constexpr Duration databasePause = std::chrono::seconds(5);

    CodexMonitor(const std::filesystem::path& root, std::filesystem::path newDatabaseFolder,
        std::chrono::microseconds newRecent, QueueRef newQueue);

    AgentActivity activity() override; // that time has passed is not told by onChange

private:
    struct Rollout {
        explicit Rollout(const std::filesystem::path& path) : file(path) {}
        LineFile file;
        CodexThread thread;
        DeckDate written; // the file's date, for lines without one
    };

    void filesChanged(const FolderWatch::Paths& changed);
    void findRollouts();
    void readRollout(const std::filesystem::path& path);
    bool isRollout(const std::filesystem::path& path) const;
    void apply(const CodexRecord& record, Rollout& rollout);
    void databaseChanged();
    void readDatabase();
    void watchFolders();
    AgentTask taskOf(const Rollout& rollout) const;
    DeckDate lastWordOf(const Rollout& rollout) const;
    bool isRecent(DeckDate date) const;
    void dropOld();
    DeckDate now() const;
    void tellChange();

    const std::filesystem::path sessionsFolder;
    const std::filesystem::path databaseFolder;
    const std::chrono::microseconds recent;
    const QueueRef queue;
    Oddities oddities{"Codex"};
    FolderWatch watch;
    FolderWatch::Paths dayFolders; // where new rollouts are made, and the folders above
    std::map<std::filesystem::path, Rollout> rollouts;
    std::map<std::string, CodexDatabase::Thread> listed; // by thread
    AgentUsage usage;
    std::optional<DeckDate> usageDate;
    std::optional<SteadyTime> databaseRead;
    Subscription databaseSoon;
};

} // namespace pelorin
