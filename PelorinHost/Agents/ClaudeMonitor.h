#pragma once

#include "PelorinHost/Agents/AgentMonitor.h"
#include "PelorinHost/Agents/ClaudeRecords.h"
#include "PelorinHost/Agents/LineFile.h"
#include "PelorinHost/Agents/Oddities.h"
#include "PelorinHost/Platform/FolderWatch.h"
#include "PelorinHost/Platform/ProcessWatch.h"

namespace pelorin {

// The sessions of Claude Code: from the state files of those that run, and from what its hooks and its status
// line tell, where the user has set them up; whichever is newer. Transcripts give titles and nothing else:
// what a session does can't be told from them. Queue: the one given. Owned by the AgentDeckKeeper.
class ClaudeMonitor final : public AgentMonitor {
public:
    ClaudeMonitor(std::filesystem::path newRoot, QueueRef newQueue);

    AgentActivity activity() override;
    void note(const ClaudeReport& report);

private:
    struct Running { // a state file
        ClaudeSession session;
        DeckDate seen; // when we first saw this status, for files without a date
        std::unique_ptr<ProcessWatch> process; // none: the file outlived its process
    };
    struct Reported { // by hooks
        std::string project;
        AgentPhase phase = AgentPhase::idle;
        std::string detail;
        DeckDate since; // of the phase
        DeckDate said; // when the phase was last confirmed
        DeckDate heard; // when anything was
    };
    struct Transcript {
        std::unique_ptr<LineFile> file; // none: not found yet
        std::optional<ClaudeTitle> title;
    };

    void filesChanged(const FolderWatch::Paths& changed);
    void readFolder();
    void readFile(const std::filesystem::path& file);
    void forget(const std::filesystem::path& file);
    void processEnded(const std::filesystem::path& file);
    bool isThatProcess(const ClaudeSession& session) const;
    void apply(const ClaudeReport& report);
    void keepUsage(const AgentUsage& usage);
    void readTitle(const std::string& sessionID, const std::string& cwd);
    std::unique_ptr<LineFile> findTranscript(const std::string& sessionID, const std::string& cwd) const;
    AgentTask taskOf(const Running& running);
    std::optional<AgentPhase> phaseNamed(const std::string& status);
    std::string titleOf(const std::string& sessionID) const;
    void dropOldReports();
    bool hasStateFile(const std::string& sessionID) const;
    DeckDate now() const;
    void tellChange();

    const std::filesystem::path root;
    const std::filesystem::path sessionsFolder;
    const QueueRef queue;
    Oddities oddities{"Claude Code"};
    FolderWatch watch;
    std::map<std::filesystem::path, Running> running;
    std::map<std::string, Reported> reported; // by session
    std::map<std::string, Transcript> transcripts; // of the sessions above
    AgentUsage usage;
};

} // namespace pelorin
