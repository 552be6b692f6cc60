#include "Tests/Lab/WindowManager.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

namespace pelorin::lab {

std::unique_ptr<Process> startWindowManager(const XServer& server)
{
    auto manager = server.launch({"openbox", "--startup", "xsetroot -name started"});
    require(eventually([&] {
        return server.run({"xprop", "-root", "WM_NAME"}).find("\"started\"") != std::string::npos;
    }),
        "the lab's window manager did not start");
    return manager;
}

} // namespace pelorin::lab
