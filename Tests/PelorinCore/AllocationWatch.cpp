#include "AllocationWatch.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Replacing operator new leaves no other place for these.
std::atomic<std::ptrdiff_t> liveBytes;
std::atomic<std::ptrdiff_t> peakBytes;

void count(std::ptrdiff_t bytes)
{
    const std::ptrdiff_t now = liveBytes += bytes;
    if (now > peakBytes) peakBytes = now;
}

} // namespace

void* operator new(std::size_t size)
{
    void* memory = std::malloc(std::max<std::size_t>(size, 1));
    if (!memory) throw std::bad_alloc{};
    count(static_cast<std::ptrdiff_t>(malloc_usable_size(memory)));
    return memory;
}

void operator delete(void* memory) noexcept
{
    if (memory) count(-static_cast<std::ptrdiff_t>(malloc_usable_size(memory)));
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

namespace pelorin {

AllocationWatch::AllocationWatch() : atStart(liveBytes)
{
    peakBytes = atStart;
}
std::ptrdiff_t AllocationWatch::live() const
{
    return liveBytes - atStart;
}
std::ptrdiff_t AllocationWatch::peak() const
{
    return peakBytes - atStart;
}

} // namespace pelorin
