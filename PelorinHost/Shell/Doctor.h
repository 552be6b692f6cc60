#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/HostConfig.h"
#include "PelorinHost/Platform/HostPlatform.h"
#include "PelorinNet/Path/NatProbe.h"

namespace pelorin {

class QueuePool;

// `pelorin-host doctor`: what a user in trouble would be told to look at, looked at, with what to do about
// it. First the facts, whoever has to be asked at the same time as the others and for eight seconds at most;
// then what they mean, which needs nothing but them. Blocks; for programs of the command line.
namespace Doctor {

struct File {
    std::string name; // in the support directory; empty: that itself
    bool isOurs = true;
    bool isOpenToOthers = false; // other users may read or write it, or make files in it
};

struct Service { // the rendezvous service
    std::optional<std::string> error; // why it can't be reached
    bool isHostOnline = false; // registered with it
    std::optional<NatProbe::Answer> network; // seen from its servers; none when it named none
};

struct Facts {
    std::filesystem::path supportDirectory;
    bool hasSettingsFile = false;
    std::optional<std::string> settingsText; // none: there is no such file, or it can't be read
    HostConfig settings; // those in effect
    std::vector<File> files;
    Result<std::string, std::string> runningHost
        = std::unexpected(""); // its status as JSON, or why there is none
    Permissions::Answers permissions;
    bool hasWaylandSession = false;
    bool encodesH264 = false, encodesHEVC = false; // with low latency, 1080p at 60 frames/s
    std::optional<std::string> tailnetAddress;
    Result<std::optional<std::string>, std::string> tailnetName = std::nullopt; // or why it can't be asked
    bool isPortFree = true;
    std::optional<Service> service; // none: not configured
};

struct Finding {
    enum class Verdict { fine, note, problem };
    Verdict verdict = Verdict::fine;
    std::string subject; // "display server"
    std::string text;
    std::string advice = {}; // none where nothing is to be done
};

Facts examine(HostPlatform& platform, QueuePool& pool, const std::filesystem::path& supportDirectory);
std::vector<Finding> diagnose(const Facts& facts);

bool hasProblem(const std::vector<Finding>& findings);
std::string readable(const std::vector<Finding>& findings);
std::string json(
    const std::vector<Finding>& findings); // {"findings": [{"subject", "verdict", "text", "advice"}]}

} // namespace Doctor
} // namespace pelorin
