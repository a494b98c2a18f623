#pragma once

#include <QByteArray>
#include <QList>
#include <optional>

struct _XDisplay;

// Reads of window-manager properties on a connection of the caller's.
namespace X11WindowProperties {

// The raw bytes of a property (32-bit items as longs); absent when unset.
std::optional<QByteArray> read(_XDisplay *display, unsigned long window, const char *name, unsigned long type);
// The window manager's active window; absent without a window manager that names one.
std::optional<unsigned long> activeWindow(_XDisplay *display);
// The window manager's managed top-level windows.
QList<unsigned long> clientWindows(_XDisplay *display);
// The process a window declares (_NET_WM_PID).
std::optional<qint32> declaredProcess(_XDisplay *display, unsigned long window);

} // namespace X11WindowProperties
