#include "PelorinRendezvous/Cluster/BrokerPoll.h"

#include "PelorinCore/Result.h"

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace pelorin {

BrokerPoll::BrokerPoll()
{
    std::array<int, 2> ends{};
    require(::pipe(ends.data()) == 0, "a pipe can be made");
    waked = OwnedDescriptor(ends[0]);
    waker = OwnedDescriptor(ends[1]);
    for (const int end : ends) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
}

void BrokerPoll::wake()
{
    if (std::this_thread::get_id() == waiter || isWoken.exchange(true)) return;
    const char byte = 0;
    static_cast<void>(::write(waker.get(), &byte, 1) == 1); // a full pipe wakes as well
}

void BrokerPoll::watch(int newSocket)
{
    {
        const std::lock_guard lock(mutex);
        socket = newSocket;
        isReadWanted = true;
        isWriteWanted = false;
    }
    wake();
}

void BrokerPoll::wantRead(bool isWanted)
{
    {
        const std::lock_guard lock(mutex);
        if (std::exchange(isReadWanted, isWanted) == isWanted) return;
    }
    wake();
}

void BrokerPoll::wantWrite(bool isWanted)
{
    {
        const std::lock_guard lock(mutex);
        if (std::exchange(isWriteWanted, isWanted) == isWanted) return;
    }
    if (isWanted) wake();
}

void BrokerPoll::unwatch()
{
    const std::lock_guard lock(mutex);
    socket = -1;
}

bool BrokerPoll::wantsWrite() const
{
    const std::lock_guard lock(mutex);
    return socket >= 0 && isWriteWanted;
}

short BrokerPoll::wanted() const
{
    return static_cast<short>((isReadWanted ? POLLIN : 0) | (isWriteWanted ? POLLOUT : 0));
}

BrokerPoll::Ready BrokerPoll::wait(std::optional<std::chrono::milliseconds> atMost)
{
    waiter = std::this_thread::get_id();
    std::array<pollfd, 2> waiting{{{waked.get(), POLLIN, 0}, {-1, 0, 0}}};
    {
        const std::lock_guard lock(mutex);
        if (wanted() != 0) waiting[1] = {socket, wanted(), 0};
    }
    ::poll(waiting.data(), waiting.size(), atMost ? static_cast<int>(atMost->count()) : -1);
    if (waiting[0].revents != 0) {
        std::array<char, 16> bytes{};
        static_cast<void>(::read(waked.get(), bytes.data(), bytes.size()) > 0);
        isWoken = false;
    }
    const short found = waiting[1].revents;
    if ((found & POLLNVAL) != 0) { // closed by its owner, who is about to say so
        unwatch();
        return {};
    }
    const bool isBroken = (found & (POLLHUP | POLLERR)) != 0;
    return {isBroken || (found & POLLIN) != 0, (found & POLLOUT) != 0};
}

} // namespace pelorin
