#include "PelorinPhone/Pairing/SecureConnect.h"

#include "PelorinNet/Channel/PelorinTLS.h"

#include <utility>

namespace pelorin {
namespace {

// One try at all that the place names. Owned by its subscription.
class Attempt final : public Subscription::State, public std::enable_shared_from_this<Attempt> {
public:
    Attempt(ConnectTo newConnectTo, HostPlace newPlace, PelorinTLS::Key newKey, Connected newDone)
        : connectTo(std::move(newConnectTo)),
          place(std::move(newPlace)),
          key(std::move(newKey)),
          done(std::move(newDone))
    {
    }

    void start()
    {
        tryHost(place.address, [](Attempt& self, const NetError& error) { self.tryName(error); });
    }

    void cancel() override
    {
        current.cancel();
        done = {};
    }

private:
    using Failed = void (*)(Attempt&, const NetError&);

    void tryHost(const std::string& host, Failed failed)
    {
        current = connectTo(host, place.port, [watch = weak_from_this(), failed](auto made) {
            const auto self = watch.lock();
            if (!self) return;
            if (!made) return failed(*self, made.error());
            self->report(PelorinTLS::clientChannel(std::move(*made), self->key));
        });
    }

    void tryName(const NetError& error)
    {
        if (!place.dnsName || *place.dnsName == place.address) return report(std::unexpected(error));
        firstError = error.description;
        tryHost(*place.dnsName, [](Attempt& self, const NetError& second) {
            self.report(std::unexpected(NetError{self.place.address + ": " + self.firstError + "; "
                + *self.place.dnsName + ": " + second.description}));
        });
    }

    void report(Result<std::unique_ptr<Channel>, NetError> result)
    {
        if (const auto reported = std::exchange(done, {})) reported(std::move(result));
    }

    const ConnectTo connectTo;
    const HostPlace place;
    const PelorinTLS::Key key;
    Connected done;
    std::string firstError;
    Subscription current;
};

} // namespace

Connect connectSecurely(ConnectTo connectTo, HostPlace place, PelorinTLS::Key key)
{
    return
        [connectTo = std::move(connectTo), place = std::move(place), key = std::move(key)](Connected done) {
            const auto attempt = std::make_shared<Attempt>(connectTo, place, key, std::move(done));
            attempt->start();
            return Subscription(attempt);
        };
}

} // namespace pelorin
