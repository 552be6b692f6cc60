#include "PelorinViewer/X11Errors.h"

#include "PelorinNet/Log.h"

#include <X11/Xlib.h>

namespace pelorin {

void outliveX11Errors()
{
    XSetErrorHandler([](Display*, XErrorEvent* error) {
        Log("window").info("X11 error {} to request {}", error->error_code, error->request_code);
        return 0;
    });
}

} // namespace pelorin
