#pragma once

#include "Tests/Lab/MessageBus.h"

namespace pelorin::lab {

// What a desktop has on its buses for staying awake and being locked, on a bus of their own: the login
// manager with one session, whose locker obeys, and a screen saver.
class DesktopServices {
public:
    DesktopServices();

    std::string address() const { return bus.address(); } // of the system's and the session's bus
    std::vector<std::string> environment() const; // for a program that is to find them

    bool isKeptAwakeByLogin() const; // somebody's inhibition is in force
    bool isKeptAwakeBySaver() const; // somebody who asked for it is still on the bus
    bool isLocked() const;
    void unlock();

private:
    std::string ask(std::vector<std::string> request) const;
    long clients() const;

    MessageBus bus;
    std::unique_ptr<Process> login;
    BusService saver;
    long ownClients = 0;
};

} // namespace pelorin::lab
