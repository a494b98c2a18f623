#pragma once

// How the application shows itself: on macOS a menu-bar accessory without a Dock icon; on Linux a
// tray icon only. Defined by the platform library; call once, after the application object exists.
namespace ApplicationPresence {
void configure();
} // namespace ApplicationPresence
