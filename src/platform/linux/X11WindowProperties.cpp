#include "platform/linux/X11WindowProperties.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace X11WindowProperties {

std::optional<QByteArray> read(Display *display, unsigned long window, const char *name, unsigned long type) {
    const Atom property = XInternAtom(display, name, True);
    if (property == None)
        return std::nullopt;
    Atom actualType = None;
    int format = 0;
    unsigned long items = 0, remaining = 0;
    unsigned char *data = nullptr;
    if (XGetWindowProperty(display, window, property, 0, 65536, False, type, &actualType, &format, &items, &remaining,
                           &data) != Success ||
        !data)
        return std::nullopt;
    // 32-bit items arrive as longs.
    const qsizetype size = format == 32 ? qsizetype(items * sizeof(long)) : qsizetype(items * unsigned(format) / 8);
    QByteArray bytes(reinterpret_cast<const char *>(data), size);
    XFree(data);
    if (actualType == None)
        return std::nullopt;
    return bytes;
}

namespace {

QList<unsigned long> longs(const std::optional<QByteArray> &bytes) {
    QList<unsigned long> values;
    if (bytes)
        for (qsizetype at = 0; at + qsizetype(sizeof(long)) <= bytes->size(); at += sizeof(long))
            values << *reinterpret_cast<const unsigned long *>(bytes->constData() + at);
    return values;
}

} // namespace

std::optional<unsigned long> activeWindow(Display *display) {
    const auto windows = longs(read(display, DefaultRootWindow(display), "_NET_ACTIVE_WINDOW", XA_WINDOW));
    if (windows.isEmpty() || windows.first() == None)
        return std::nullopt;
    return windows.first();
}

QList<unsigned long> clientWindows(Display *display) {
    return longs(read(display, DefaultRootWindow(display), "_NET_CLIENT_LIST", XA_WINDOW));
}

std::optional<qint32> declaredProcess(Display *display, unsigned long window) {
    const auto values = longs(read(display, window, "_NET_WM_PID", XA_CARDINAL));
    if (values.isEmpty() || values.first() == 0)
        return std::nullopt;
    return qint32(values.first());
}

} // namespace X11WindowProperties
