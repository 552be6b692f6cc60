#pragma once

namespace pelorin {

// SIGINT and SIGTERM as something to read; blocked in every thread started later. Made by the main thread
// before there is any other.
class EndSignals {
public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    int descriptor = -1; // readable once a signal has come
};

} // namespace pelorin
