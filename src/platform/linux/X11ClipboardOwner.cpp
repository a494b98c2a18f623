#include "platform/linux/X11ClipboardOwner.h"

#include "platform/linux/X11Errors.h"

#include <QElapsedTimer>
#include <QList>
#include <QSocketNotifier>
#include <poll.h>

// Xlib's macros (None, Bool, KeyPress…) collide with Qt's names: it comes after every Qt header.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace {

// A server that does not echo our property change this fast is not one to hand text to.
constexpr int serverTimeDeadlineMs = 200;

Atom atom(Display *display, const char *name) {
    return XInternAtom(display, name, False);
}

} // namespace

X11ClipboardOwner::X11ClipboardOwner(const QString &displayName) {
    if (displayName.isEmpty())
        return;
    X11Errors::installTolerantHandler();
    m_display = XOpenDisplay(displayName.toLocal8Bit().constData());
    if (!m_display)
        return;
    m_window = XCreateSimpleWindow(m_display, DefaultRootWindow(m_display), 0, 0, 1, 1, 0, 0, 0);
    // Property changes on our window are how we learn the server's time.
    XSelectInput(m_display, m_window, PropertyChangeMask);
    XFlush(m_display);
    m_notifier = std::make_unique<QSocketNotifier>(ConnectionNumber(m_display), QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] { handleEvents(); });
}

X11ClipboardOwner::~X11ClipboardOwner() {
    if (!m_display)
        return;
    m_notifier.reset();
    XDestroyWindow(m_display, m_window);
    XCloseDisplay(m_display);
}

// The selection must be claimed with a real server time: CurrentTime would let a late claim of
// ours win over a newer copy by the user.
unsigned long X11ClipboardOwner::serverTime() {
    XChangeProperty(m_display, m_window, atom(m_display, "QUORVANE_SERVER_TIME"), XA_STRING, 8, PropModeAppend, nullptr,
                    0);
    XFlush(m_display);
    QElapsedTimer waited;
    waited.start();
    XEvent event;
    while (waited.elapsed() < serverTimeDeadlineMs) {
        if (XCheckTypedWindowEvent(m_display, m_window, PropertyNotify, &event))
            return event.xproperty.time;
        pollfd connection{ConnectionNumber(m_display), POLLIN, 0};
        poll(&connection, 1, int(serverTimeDeadlineMs - waited.elapsed()));
        XEventsQueued(m_display, QueuedAfterReading);
    }
    return CurrentTime;
}

bool X11ClipboardOwner::own(const DesktopTextBackend::ClipboardItem &formats) {
    if (!m_display)
        return false;
    // No INCR transfers: what one property can carry is far more than any dictation.
    const qint64 limit = qint64(XMaxRequestSize(m_display)) * 4 - 1024;
    for (const auto &format : formats)
        if (format.second.size() > limit)
            return false;
    const Time time = serverTime();
    if (time == CurrentTime)
        return false;
    const Atom clipboard = atom(m_display, "CLIPBOARD");
    XSetSelectionOwner(m_display, clipboard, m_window, time);
    if (XGetSelectionOwner(m_display, clipboard) != m_window)
        return false;
    m_formats = formats;
    m_ownedSince = time;
    m_owner = true;
    ++m_changeCount;
    // Waiting for the time may have read requests into Xlib's queue, where the socket notifier
    // never sees them.
    handleEvents();
    return true;
}

void X11ClipboardOwner::release() {
    if (!m_display || !m_owner)
        return;
    XSetSelectionOwner(m_display, atom(m_display, "CLIPBOARD"), None, serverTime());
    XFlush(m_display);
    m_owner = false;
    m_formats.clear();
    ++m_changeCount;
    handleEvents();
}

qint64 X11ClipboardOwner::changeCount() {
    // A copy elsewhere may be waiting in the queue.
    handleEvents();
    return m_changeCount;
}

void X11ClipboardOwner::handleEvents() {
    if (!m_display)
        return;
    const Atom clipboard = atom(m_display, "CLIPBOARD");
    const Atom targets = atom(m_display, "TARGETS");
    const Atom timestamp = atom(m_display, "TIMESTAMP");
    while (XPending(m_display)) {
        XEvent event;
        XNextEvent(m_display, &event);
        if (event.type == SelectionClear && event.xselectionclear.selection == clipboard) {
            // Someone else copied: what we held is no longer the clipboard.
            if (m_owner)
                ++m_changeCount;
            m_owner = false;
            m_formats.clear();
            continue;
        }
        if (event.type != SelectionRequest)
            continue;
        const XSelectionRequestEvent &request = event.xselectionrequest;
        XSelectionEvent reply{};
        reply.type = SelectionNotify;
        reply.display = m_display;
        reply.requestor = request.requestor;
        reply.selection = request.selection;
        reply.target = request.target;
        reply.time = request.time;
        reply.property = None;
        // Old clients name no property: the target is the property then.
        const Atom property = request.property == None ? request.target : request.property;
        if (m_owner && request.selection == clipboard) {
            if (request.target == targets) {
                QList<Atom> offered{targets, timestamp};
                for (const auto &format : std::as_const(m_formats))
                    offered << atom(m_display, format.first.toUtf8().constData());
                XChangeProperty(m_display, request.requestor, property, XA_ATOM, 32, PropModeReplace,
                                reinterpret_cast<const unsigned char *>(offered.constData()), int(offered.size()));
                reply.property = property;
            } else if (request.target == timestamp) {
                const long since = long(m_ownedSince);
                XChangeProperty(m_display, request.requestor, property, XA_INTEGER, 32, PropModeReplace,
                                reinterpret_cast<const unsigned char *>(&since), 1);
                reply.property = property;
            } else {
                for (const auto &[format, bytes] : std::as_const(m_formats))
                    if (atom(m_display, format.toUtf8().constData()) == request.target) {
                        // TEXT lets the owner choose the encoding: ours is always UTF-8.
                        const Atom type =
                            request.target == atom(m_display, "TEXT") ? atom(m_display, "UTF8_STRING") : request.target;
                        XChangeProperty(m_display, request.requestor, property, type, 8, PropModeReplace,
                                        reinterpret_cast<const unsigned char *>(bytes.constData()), int(bytes.size()));
                        reply.property = property;
                        break;
                    }
            }
        }
        XSendEvent(m_display, request.requestor, False, NoEventMask, reinterpret_cast<XEvent *>(&reply));
    }
    XFlush(m_display);
}
