#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pelorin::lab {

// A network inside this machine, with interfaces, addresses, routes and a firewall of its own. It lives as
// long as the object or a program that runs in it, and those go when we do, even when we are killed.
class NetworkNamespace {
public:
    // Why this machine lets us have none, as in a container without privileges; nothing where it does.
    static std::optional<std::string> refusal();

    NetworkNamespace(); // only the loopback interface, up
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    // A file that names it to other programs.
    std::string path() const;
    // command as a command to be started there.
    std::vector<std::string> inside(std::vector<std::string> command) const;
    // Shell commands there, each of which must succeed.
    void configure(const std::string& script) const;
    // On a thread that is there. Sockets and devices made in it stay there.
    void run(const std::function<void()>& work) const;
    static void raise(const std::string& device); // of the calling thread's network: sets it up

private:
    int fd = -1;
};

} // namespace pelorin::lab
