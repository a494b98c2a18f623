#pragma once

#include "pipeline/PlatformKit.h"
#include "platform/linux/wayland/GlobalShortcutsSession.h"

#include <QString>

// How the mode keys reach us in a Wayland session: the desktop portal's global shortcuts where the
// desktop offers them, else the compositor's key bindings calling `quorvane key`.
namespace WaylandKeys {

struct Route {
    bool portal = false;
    PlatformKit::HotkeyFactory hotkey;
    // For the start-up log line: "keys through …".
    QString summary;
    // For the setup checks: which way is used and what the user does next.
    QString setupStep;
};

Route choose(const GlobalShortcutsSession::Availability &portal);

} // namespace WaylandKeys
