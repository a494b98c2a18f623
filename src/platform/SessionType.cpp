#include "platform/SessionType.h"

#include <QtGlobal>

namespace SessionType {

Kind detect(const QString &declaredType, const QString &waylandDisplay, const QString &display) {
    const QString declared = declaredType.toLower();
    if (declared == QLatin1String("wayland") || !waylandDisplay.isEmpty())
        return Kind::wayland;
    // "tty" or "unspecified" with a display is still a desktop: someone started X by hand.
    if (!display.isEmpty())
        return Kind::x11;
    return Kind::none;
}

Kind current() {
    return detect(qEnvironmentVariable("XDG_SESSION_TYPE"), qEnvironmentVariable("WAYLAND_DISPLAY"),
                  qEnvironmentVariable("DISPLAY"));
}

QString name(Kind kind) {
    switch (kind) {
    case Kind::x11:
        return QStringLiteral("x11");
    case Kind::wayland:
        return QStringLiteral("wayland");
    case Kind::none:
        break;
    }
    return {};
}

QStringList waylandGaps(const WaylandServices &services) {
    if (!services.connected)
        return {QStringLiteral("The Wayland compositor could not be reached (WAYLAND_DISPLAY is not a running "
                               "compositor's socket): start Quorvane from inside your desktop session.")};
    QStringList gaps;
    const bool clipboard = services.clipboardControl || services.portalClipboard || services.x11Clipboard;
    if (!clipboard)
        gaps << QStringLiteral("The compositor offers no clipboard control (wlr data-control), the desktop portal "
                               "does not share the clipboard and there is no XWayland to reach it through, so text "
                               "cannot be put on the clipboard or pasted: use a wlroots compositor such as sway or "
                               "Hyprland, or KDE Plasma 6.");
    else if (!services.clipboardControl && !services.portalClipboard)
        gaps << QStringLiteral("The compositor offers no clipboard control (wlr data-control) and the desktop portal "
                               "does not share the clipboard, so text goes to the clipboard through XWayland and your "
                               "earlier clipboard is not kept.");
    if (clipboard && !services.virtualKeyboard && !services.portalKeyboard)
        gaps << QStringLiteral("The compositor offers no virtual keyboard and the desktop portal no remote desktop "
                               "keyboard, so text is left on the clipboard to paste by hand: use a wlroots compositor "
                               "such as sway or Hyprland, or install your desktop's xdg-desktop-portal backend "
                               "(xdg-desktop-portal-gnome, xdg-desktop-portal-kde).");
    if (!services.windowTree)
        gaps << QStringLiteral("The application in front cannot be known (no sway IPC socket or Hyprland request "
                               "socket), so text is pasted without checking that the destination is unchanged: "
                               "start Quorvane from the session so that it inherits SWAYSOCK or "
                               "HYPRLAND_INSTANCE_SIGNATURE.");
    return gaps;
}

} // namespace SessionType
