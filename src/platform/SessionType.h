#pragma once

#include <QString>
#include <QStringList>

// Which kind of graphical session this process runs in, and what that session lacks for dictation.
namespace SessionType {

enum class Kind { x11, wayland, none };

// From XDG_SESSION_TYPE, WAYLAND_DISPLAY and DISPLAY. A Wayland session wins over DISPLAY, which
// there only reaches XWayland: X11 global keys and XTest see nothing of the native windows.
Kind detect(const QString &declaredType, const QString &waylandDisplay, const QString &display);
// This process's environment.
Kind current();
// "x11", "wayland" or "" (the values of XDG_SESSION_TYPE).
QString name(Kind kind);

// What a Wayland compositor offers us, found when the backends connect.
struct WaylandServices {
    bool connected = false;
    bool clipboardControl = false;
    bool virtualKeyboard = false;
    bool windowTree = false;
    // XWayland's CLIPBOARD, taken where there is no clipboard control.
    bool x11Clipboard = false;
    // The desktop portal's remote desktop keyboard, and its clipboard, where the compositor keeps
    // both to itself (GNOME, KDE Plasma).
    bool portalKeyboard = false;
    bool portalClipboard = false;
};

// One line for each missing piece, naming it and the next step; empty when nothing is missing.
QStringList waylandGaps(const WaylandServices &services);

} // namespace SessionType
