#include "platform/ApplicationPresence.h"

namespace ApplicationPresence {
// X11 has no Dock to hide from: the tray icon is the whole presence.
void configure() {}
} // namespace ApplicationPresence
