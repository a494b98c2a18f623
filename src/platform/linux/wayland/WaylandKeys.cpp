#include "platform/linux/wayland/WaylandKeys.h"

#include "platform/PushToTalkHotkey.h"
#include "platform/linux/CompositorKeyBindings.h"
#include "platform/linux/wayland/PortalHotkeyBackend.h"

namespace WaylandKeys {

Route choose(const GlobalShortcutsSession::Availability &portal) {
    Route route;
    route.portal = portal.usable;
    if (portal.usable) {
        route.hotkey = [](PushToTalkKey key, PipelineMode mode) -> std::unique_ptr<GlobalHotkey> {
            return std::make_unique<PushToTalkHotkey>(
                key, std::make_shared<PortalHotkeyBackend>(mode, key, GlobalShortcutsSession::shared()));
        };
        route.summary = QStringLiteral("the desktop portal's global shortcuts (version %1)").arg(portal.version);
        route.setupStep = QStringLiteral(
            "The mode keys are your desktop's global shortcuts: confirm them when the desktop asks (once); change "
            "them later in its keyboard shortcut settings.");
        return route;
    }
    // The keys keep their names, which the suggested bindings use.
    route.hotkey = [](PushToTalkKey key, PipelineMode mode) -> std::unique_ptr<GlobalHotkey> {
        return std::make_unique<PushToTalkHotkey>(key, std::make_shared<CompositorKeyBindingBackend>(mode));
    };
    route.summary = QStringLiteral("compositor bindings (quorvane key), since %1").arg(portal.problem);
    route.setupStep =
        QStringLiteral("The mode keys come from your compositor's key bindings, since %1: bind each mode key to "
                       "\u201Cquorvane key press dictate\u201D on press and \u201Cquorvane key release dictate\u201D "
                       "on release (edit and prompt likewise); the README has the lines for sway, Hyprland, GNOME "
                       "and KDE.")
            .arg(portal.problem);
    return route;
}

} // namespace WaylandKeys
