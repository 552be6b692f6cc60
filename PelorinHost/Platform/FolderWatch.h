#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/OwnedDescriptor.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <map>
#include <set>

namespace pelorin {

// Notices when something in one of some folders is made, written, renamed or removed. A folder that is not
// there is waited for, and one that went is waited for again. Queue: the one given. Owned by whoever wants to
// know.
class FolderWatch {
public:
    using Paths = std::set<std::filesystem::path>;

    // However much is written, we hear of it this often: who writes a file line by line wakes us no more.
    static constexpr Duration pause = std::chrono::milliseconds(500);
    // Where the system has no more watches to give, everything counts as changed this often.
    static constexpr Duration pollPeriod = std::chrono::seconds(5);

    explicit FolderWatch(QueueRef newQueue);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    // Exactly these from here on. What is in them already is the caller's to read, after this call.
    void watch(Paths folders);

    // What changed: entries of the folders, or a folder itself when it came, went, or may have changed
    // unseen. At once after a quiet time. May call watch and may destroy us.
    std::function<void(const Paths& changed)> onChange;

private:
    // What one of the system's watches stands for: it watches a folder once, by whatever paths.
    struct Interest {
        Paths contents; // folders, to be reported with the entry's name
        std::map<std::string, Paths> arrivals; // an entry's name, and the folders that come or go with it
    };

    void arm();
    void armFolder(const std::filesystem::path& folder, std::map<int, Interest>& armed);
    int add(const std::filesystem::path& folder, std::uint32_t events);
    void drain();
    bool note(int descriptor, std::uint32_t events, const std::string& name, Paths& changed) const;
    void listen();
    void poll();

    const QueueRef queue;
    const Log log{"agents"};
    OwnedDescriptor inotify;
    Paths wanted;
    std::map<int, Interest> interests;
    Subscription readable;
    Subscription pausing;
    Subscription polling;
};

} // namespace pelorin
