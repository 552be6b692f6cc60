#pragma once

namespace pelorin {

// Notes errors of the X server in the log from now on; else the first one would end the program. They come
// late and for requests that a library made: SDL wakes its waiting thread through the window, on another
// connection than the one that destroys it, and the server may serve that one first. For the whole process;
// any thread.
void outliveX11Errors();

} // namespace pelorin
