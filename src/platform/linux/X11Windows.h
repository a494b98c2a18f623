#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <optional>

struct _XDisplay;

// Reads about the windows of an X11 desktop, shared by the services that need to know what is in
// front. Windows are plain XIDs so that callers need not include Xlib.
namespace X11Windows {

// The window manager's active window, else the focus window or its nearest ancestor with a class;
// 0 when there is none.
unsigned long activeWindow(_XDisplay *display);

struct Class {
    QString instance;
    QString name;
};
std::optional<Class> classOf(_XDisplay *display, unsigned long window);

// Through the X resource extension, which knows the client even when it sets no _NET_WM_PID.
std::optional<qint32> processOf(_XDisplay *display, unsigned long window);

std::optional<QByteArray> readProperty(_XDisplay *display, unsigned long window, const char *name, unsigned long type);

} // namespace X11Windows
