#include "platform/linux/X11ClipboardOwner.h"

#include "platform/linux/X11Errors.h"

#include <QElapsedTimer>
#include <QList>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

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
    // Looked up now, once: the answers then cost the server no more than the data itself.
    for (const char *name :
         {"CLIPBOARD", "PRIMARY", "TARGETS", "TIMESTAMP", "TEXT", "UTF8_STRING", "QUORVANE_SERVER_TIME"})
        atom(m_display, name);
    XFlush(m_display);
    m_stopFd = eventfd(0, EFD_CLOEXEC);
    m_server = std::thread([this] { serve(); });
}

X11ClipboardOwner::~X11ClipboardOwner() {
    if (!m_display)
        return;
    const eventfd_t stop = 1;
    (void)write(m_stopFd, &stop, sizeof stop);
    m_server.join();
    close(m_stopFd);
    XDestroyWindow(m_display, m_window);
    XCloseDisplay(m_display);
}

void X11ClipboardOwner::serve() {
    for (;;) {
        pollfd fds[2] = {{ConnectionNumber(m_display), POLLIN, 0}, {m_stopFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        if (fds[1].revents)
            return;
        // A server that went away leaves nothing to answer.
        if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL))
            return;
        std::lock_guard lock(m_lock);
        handleEvents();
    }
}

// The selections must be claimed with a real server time: CurrentTime would let a late claim of
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

bool X11ClipboardOwner::own(const DesktopTextBackend::ClipboardItem &formats, bool primaryToo) {
    if (!m_display)
        return false;
    // No INCR transfers: what one property can carry is far more than any dictation.
    const qint64 limit = qint64(XMaxRequestSize(m_display)) * 4 - 1024;
    for (const auto &format : formats)
        if (format.second.size() > limit)
            return false;
    std::lock_guard lock(m_lock);
    const Time time = serverTime();
    if (time == CurrentTime)
        return false;
    // Ready before the claim: a request may follow it at once.
    m_formats = formats;
    m_ownedSince = time;
    const Atom clipboard = atom(m_display, "CLIPBOARD");
    XSetSelectionOwner(m_display, clipboard, m_window, time);
    if (primaryToo)
        XSetSelectionOwner(m_display, XA_PRIMARY, m_window, time);
    m_ownsClipboard = XGetSelectionOwner(m_display, clipboard) == m_window;
    m_ownsPrimary = primaryToo && XGetSelectionOwner(m_display, XA_PRIMARY) == m_window;
    if (m_ownsClipboard)
        ++m_changeCount;
    // Waiting for the time may have read requests into Xlib's queue, where poll never sees them.
    handleEvents();
    return m_ownsClipboard;
}

void X11ClipboardOwner::release() {
    if (!m_display)
        return;
    std::lock_guard lock(m_lock);
    if (!m_ownsClipboard)
        return;
    XSetSelectionOwner(m_display, atom(m_display, "CLIPBOARD"), None, serverTime());
    XFlush(m_display);
    m_ownsClipboard = false;
    ++m_changeCount;
    handleEvents();
}

bool X11ClipboardOwner::ownsClipboard() {
    if (!m_display)
        return false;
    std::lock_guard lock(m_lock);
    handleEvents();
    return m_ownsClipboard;
}

qint64 X11ClipboardOwner::changeCount() {
    if (!m_display)
        return 0;
    std::lock_guard lock(m_lock);
    // A copy elsewhere may be waiting in the queue.
    handleEvents();
    return m_changeCount;
}

void X11ClipboardOwner::handleEvents() {
    const Atom clipboard = atom(m_display, "CLIPBOARD");
    const Atom targets = atom(m_display, "TARGETS");
    const Atom timestamp = atom(m_display, "TIMESTAMP");
    while (XPending(m_display)) {
        XEvent event;
        XNextEvent(m_display, &event);
        if (event.type == SelectionClear) {
            // Someone else copied or selected: what we held is no longer theirs to read.
            if (event.xselectionclear.selection == clipboard && m_ownsClipboard) {
                m_ownsClipboard = false;
                ++m_changeCount;
            } else if (event.xselectionclear.selection == XA_PRIMARY) {
                m_ownsPrimary = false;
            }
            if (!m_ownsClipboard && !m_ownsPrimary)
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
        const bool owned =
            (request.selection == clipboard && m_ownsClipboard) || (request.selection == XA_PRIMARY && m_ownsPrimary);
        if (owned) {
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
