#include "platform/linux/X11Windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XRes.h>

namespace X11Windows {

namespace {

std::optional<unsigned long> readCardinal(Display *display, Window window, const char *name, Atom type) {
    const auto bytes = readProperty(display, window, name, type);
    if (!bytes || bytes->size() < qsizetype(sizeof(long)))
        return std::nullopt;
    return *reinterpret_cast<const unsigned long *>(bytes->constData());
}

} // namespace

std::optional<QByteArray> readProperty(Display *display, unsigned long window, const char *name, unsigned long type) {
    const Atom property = XInternAtom(display, name, True);
    if (property == None)
        return std::nullopt;
    Atom actualType = None;
    int format = 0;
    unsigned long items = 0, remaining = 0;
    unsigned char *data = nullptr;
    if (XGetWindowProperty(display, window, property, 0, 4096, False, type, &actualType, &format, &items, &remaining,
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

unsigned long activeWindow(Display *display) {
    if (const auto active = readCardinal(display, DefaultRootWindow(display), "_NET_ACTIVE_WINDOW", XA_WINDOW);
        active && *active != None)
        return Window(*active);
    // Without a window manager: the focus window, or the nearest ancestor that names its class.
    Window focus = None;
    int revert = 0;
    XGetInputFocus(display, &focus, &revert);
    while (focus != None && focus != PointerRoot && focus != DefaultRootWindow(display)) {
        XClassHint hint{};
        if (XGetClassHint(display, focus, &hint)) {
            XFree(hint.res_name);
            XFree(hint.res_class);
            return focus;
        }
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (!XQueryTree(display, focus, &root, &parent, &children, &count))
            break;
        if (children)
            XFree(children);
        focus = parent;
    }
    return None;
}

std::optional<Class> classOf(Display *display, unsigned long window) {
    XClassHint hint{};
    if (!XGetClassHint(display, window, &hint))
        return std::nullopt;
    Class found{QString::fromLocal8Bit(hint.res_name), QString::fromLocal8Bit(hint.res_class)};
    XFree(hint.res_name);
    XFree(hint.res_class);
    return found;
}

std::optional<qint32> processOf(Display *display, unsigned long window) {
    int eventBase = 0, errorBase = 0;
    if (XResQueryExtension(display, &eventBase, &errorBase)) {
        XResClientIdSpec query{window, XRES_CLIENT_ID_PID_MASK};
        long count = 0;
        XResClientIdValue *values = nullptr;
        if (XResQueryClientIds(display, 1, &query, &count, &values) == Success) {
            std::optional<qint32> pid;
            for (long i = 0; i < count && !pid; ++i)
                if (const pid_t found = XResGetClientPid(&values[i]); found > 0)
                    pid = qint32(found);
            XResClientIdsDestroy(count, values);
            if (pid)
                return pid;
        }
    }
    if (const auto pid = readCardinal(display, window, "_NET_WM_PID", XA_CARDINAL); pid && *pid > 0)
        return qint32(*pid);
    return std::nullopt;
}

} // namespace X11Windows
