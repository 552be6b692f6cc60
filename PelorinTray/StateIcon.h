#pragma once

#include "PelorinTray/TrayModel.h"

#include <QIcon>

namespace pelorin {

// A desktop with a phone before it, and a badge: hollow and grey while waiting, green while connected, red
// with a bar when something is wrong. Shapes differ as well as colours.
QIcon stateIcon(HostState state);

// For a phone that has just been paired.
QPixmap successPicture(int sizePx, double scale);

} // namespace pelorin
