#include "PelorinHost/HostServer.h"
#include "PelorinHost/Linux/LinuxPlatform.h"
#include "Tests/Lab/Programs/PathEndLoad.h"

namespace pelorin::lab {
namespace {

// The host's server, on a real display.
class Desk final : public PathEndLoad {
public:
    Desk(std::string newDisplay, std::string newSupport)
        : display(std::move(newDisplay)),
          support(std::move(newSupport))
    {
    }

    void begin(QueuePool& pool, const QueueRef&) override
    {
        platform = makeLinuxPlatform(display);
        pairing.emplace(support, pool.makeQueue("dev.pelorin.host.pairing"));
        const QueueRef queue = pool.makeQueue("dev.pelorin.host.server");
        const SessionSurroundings surroundings{*platform, pool, *pairing, std::nullopt};
        const auto dontListen = [](QueueRef, const std::string&,
                                    std::uint16_t) -> Result<std::unique_ptr<TcpListener>, NetError> {
            return std::unexpected(NetError{"phones come over paths"});
        };
        server = Confined<HostServer>(queue, [surroundings, dontListen, queue] {
            return std::make_unique<HostServer>(surroundings, HostConfig{}, dontListen, queue);
        });
    }
    void use(std::unique_ptr<Channel> channel) override
    {
        server.run([channel = std::move(channel)](HostServer& running) mutable {
            running.acceptRemote(std::move(channel), "phone of the lab");
        });
    }
    nlohmann::json figures() override { return nullptr; }
    void end() override { server = {}; }

private:
    const std::string display;
    const std::string support;
    std::unique_ptr<HostPlatform> platform;
    std::optional<PairingStore> pairing;
    Confined<HostServer> server;
};

} // namespace

std::unique_ptr<PathEndLoad> makeLoad(const LoadOptions& options)
{
    return std::make_unique<Desk>(options.display, options.support);
}

} // namespace pelorin::lab
