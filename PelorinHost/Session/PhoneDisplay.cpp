#include "PelorinHost/Session/PhoneDisplay.h"

#include "PelorinNet/Channel/PelorinTLS.h"

#include <utility>

namespace pelorin {
namespace {

constexpr std::size_t ownerBytes = 16; // nobody else's, without asking anybody

} // namespace

PhoneDisplay::PhoneDisplay(std::shared_ptr<Confined<VirtualDisplayManager>> newManager, QueueRef newQueue)
    : manager(std::move(newManager)),
      queue(std::move(newQueue)),
      displayOwner(PelorinTLS::randomBytes(ownerBytes))
{
}

PhoneDisplay::~PhoneDisplay()
{
    if (isAsked) release({});
}

template <class Report>
auto PhoneDisplay::here(Report report)
{
    return [report = std::move(report), queue = queue, alive = lifetime.watch(), wish = ++wishes](
               auto... values) {
        queue->post([report, alive, wish, values...] {
            if (alive) report(wish, values...);
        });
    };
}

void PhoneDisplay::want(std::optional<PointSize> size, std::function<void()> done)
{
    queue->assertCurrent();
    if (!manager || (!size && !isAsked)) return done();
    const auto report = here(
        [this, done = std::move(done)](int wish, std::optional<std::uint32_t> newDisplayID = std::nullopt) {
            settled(wish, newDisplayID, done);
        });
    isAsked = size.has_value();
    if (!size) return release(report);
    manager->run([size = *size, owner = displayOwner, report](
                     VirtualDisplayManager& running) { running.ensureDisplay(size, owner, report); });
}

void PhoneDisplay::release(std::function<void()> done)
{
    manager->run([owner = displayOwner, done = std::move(done)](VirtualDisplayManager& running) {
        running.release(owner);
        if (done) done();
    });
}

void PhoneDisplay::settled(
    int wish, std::optional<std::uint32_t> newDisplayID, const std::function<void()>& done)
{
    if (wish != wishes) return;
    displayID = newDisplayID;
    done();
}

} // namespace pelorin
