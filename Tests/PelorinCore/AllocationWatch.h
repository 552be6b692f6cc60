#pragma once

#include <cstddef>

namespace pelorin {

// What operator new has given out since the watch was made: this test program replaces it, for the promises
// that are about memory. One watch at a time.
class AllocationWatch {
public:
    AllocationWatch();
    std::ptrdiff_t live() const; // bytes held now beyond those held at the start
    std::ptrdiff_t peak() const; // the most there ever were

private:
    std::ptrdiff_t atStart;
};

} // namespace pelorin
