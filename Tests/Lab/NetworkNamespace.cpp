#include "Tests/Lab/NetworkNamespace.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace pelorin::lab {
namespace {

// Networks belong to threads: one that is made for it can change its own and vanish with it.
void onThread(const std::function<void()>& work)
{
    std::thread(work).join();
}

} // namespace

void NetworkNamespace::raise(const std::string& device)
{
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    request.ifr_flags = IFF_UP;
    require(ioctl(control, SIOCSIFFLAGS, &request) == 0, "a network device");
    close(control);
}

std::optional<std::string> NetworkNamespace::refusal()
{
    int error = 0;
    onThread([&] {
        if (unshare(CLONE_NEWNET) != 0) error = errno;
    });
    if (error != 0) return std::string("no network namespaces here: ") + std::strerror(error);
    if (access("/dev/net/tun", R_OK | W_OK) != 0)
        return std::string("no tunnel devices here: ") + std::strerror(errno);
    return std::nullopt;
}

NetworkNamespace::NetworkNamespace()
{
    onThread([this] {
        require(unshare(CLONE_NEWNET) == 0, "a network namespace");
        fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        require(fd >= 0, "a network namespace's file");
        raise("lo");
    });
}

NetworkNamespace::~NetworkNamespace()
{
    close(fd);
}

std::string NetworkNamespace::path() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
}

std::vector<std::string> NetworkNamespace::inside(std::vector<std::string> command) const
{
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL", "nsenter", "--net=" + path(), "--"});
    return command;
}

void NetworkNamespace::configure(const std::string& script) const
{
    const TemporaryFolder folder;
    const auto log = (folder.path() / "log").string();
    const int exitCode = Process::start(inside({"sh", "-ec", script}), {}, log)->waitForExit(20'000);
    require(exitCode == 0, ("a network of the lab: " + script + "\n" + contentOf(log)).c_str());
}

void NetworkNamespace::run(const std::function<void()>& work) const
{
    onThread([&] {
        require(setns(fd, CLONE_NEWNET) == 0, "setns");
        work();
    });
}

} // namespace pelorin::lab
