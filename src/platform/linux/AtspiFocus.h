#pragma once

#include "platform/DesktopTextBackend.h"

#include <memory>

// The focused element of a running application, read through the AT-SPI accessibility bus.
namespace AtspiFocus {

// The element with the keyboard focus in the application of this process; null when assistive
// technology is off, the application is not on the bus, or nothing in it has the focus.
std::unique_ptr<FocusedElement> focusedElementOf(qint32 processID);
// The focused element inside whichever application's window is active, for desktops that do not
// say which process is in front.
std::unique_ptr<FocusedElement> focusedElementInActiveWindow();

} // namespace AtspiFocus
