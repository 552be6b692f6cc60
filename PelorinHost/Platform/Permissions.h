#pragma once

#include <string>

namespace pelorin {

// Whether the platform lets us see the screen and post events, asked anew at every hello.
class Permissions {
public:
    virtual ~Permissions() = default;

    struct Answer {
        bool isGranted = false;
        std::string missing; // what is missing, for the log: "no X server at :0", "no MIT-SHM"
    };
    struct Answers {
        Answer capture;
        Answer events; // posting them
    };
    virtual Answers ask() = 0;
};

} // namespace pelorin
