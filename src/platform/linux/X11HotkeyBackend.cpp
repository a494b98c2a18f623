#include "platform/linux/X11HotkeyBackend.h"

#include "platform/linux/X11Errors.h"

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <array>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const std::array<PushToTalkKey, 3> modeKeys = {PushToTalkKey::rightOption, PushToTalkKey::rightCommand,
                                               PushToTalkKey::fn};

quint64 maskOf(int keyCode) {
    for (const PushToTalkKey key : modeKeys) {
        const PhysicalKey physical = PhysicalKey::x11(key);
        if (physical.code == keyCode)
            return physical.flagMask;
    }
    return 0;
}

// Xlib's handler for a lost connection, which is process-wide, exits the process. Ours returns
// for our own connections (their exit handler then marks them broken) and leaves every other
// display to the handler that was there before.
std::mutex ourDisplaysLock;
std::set<Display *> ourDisplays;
XIOErrorHandler previousIOErrorHandler = nullptr;

int survivingIOError(Display *display) {
    {
        std::lock_guard lock(ourDisplaysLock);
        if (ourDisplays.count(display))
            return 0;
    }
    return previousIOErrorHandler ? previousIOErrorHandler(display) : 0;
}

} // namespace

// A display connection that survives the server going away.
struct X11HotkeyBackend::Connection {
    Display *display = nullptr;
    int xiOpcode = 0;
    std::atomic<bool> broken{false};

    explicit Connection(Display *d) : display(d) {
        static std::once_flag installed;
        std::call_once(installed, [] { previousIOErrorHandler = XSetIOErrorHandler(survivingIOError); });
        {
            std::lock_guard lock(ourDisplaysLock);
            ourDisplays.insert(display);
        }
        XSetIOErrorExitHandler(
            display, [](Display *, void *self) { static_cast<Connection *>(self)->broken = true; }, this);
    }
    ~Connection() {
        {
            std::lock_guard lock(ourDisplaysLock);
            ourDisplays.erase(display);
        }
        // A broken display does no more I/O, so closing it only frees it.
        XCloseDisplay(display);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    static std::unique_ptr<Connection> open() {
        X11Errors::installTolerantHandler();
        Display *display = XOpenDisplay(nullptr);
        return display ? std::make_unique<Connection>(display) : nullptr;
    }

    // Raw events go to the root window whatever has the focus or a grab (XInput 2.1 and later).
    static std::unique_ptr<Connection> openForEvents(QString *failure) {
        auto connection = open();
        if (!connection) {
            *failure = QStringLiteral("Could not open the X display for the push-to-talk keys; is this an X11 "
                                      "session with DISPLAY set?");
            return nullptr;
        }
        Display *display = connection->display;
        int event = 0;
        int error = 0;
        int major = 2;
        int minor = 2;
        if (!XQueryExtension(display, "XInputExtension", &connection->xiOpcode, &event, &error) ||
            XIQueryVersion(display, &major, &minor) != Success || (major == 2 && minor < 1)) {
            *failure = QStringLiteral("The X server lacks XInput 2.1, which the push-to-talk keys need.");
            return nullptr;
        }
        unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
        XISetMask(bits, XI_RawKeyPress);
        XISetMask(bits, XI_RawKeyRelease);
        XIEventMask mask{XIAllMasterDevices, int(sizeof bits), bits};
        XISelectEvents(display, DefaultRootWindow(display), &mask, 1);
        XSync(display, False);
        if (connection->broken) {
            *failure = QStringLiteral("The X server closed the connection for the push-to-talk keys.");
            return nullptr;
        }
        return connection;
    }

    quint64 pressedFlags() {
        char keymap[32] = {};
        XQueryKeymap(display, keymap);
        if (broken)
            return 0;
        quint64 flags = 0;
        for (const PushToTalkKey key : modeKeys) {
            const PhysicalKey physical = PhysicalKey::x11(key);
            if (keymap[physical.code / 8] & (1 << (physical.code % 8)))
                flags |= physical.flagMask;
        }
        return flags;
    }
};

X11HotkeyBackend::X11HotkeyBackend() : m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

X11HotkeyBackend::~X11HotkeyBackend() {
    stop();
    {
        std::lock_guard lock(m_keymapLock);
        m_keymap.reset();
    }
    close(m_wakeFd);
}

bool X11HotkeyBackend::start(Events events) {
    stop();
    QString failure;
    auto connection = Connection::openForEvents(&failure);
    {
        std::lock_guard lock(m_lock);
        m_unavailable = failure;
        m_eventFd = connection ? ConnectionNumber(connection->display) : -1;
    }
    if (!connection)
        return false;
    m_events = std::move(events);
    m_thread = std::thread([this, c = std::move(connection)]() mutable { run(std::move(c)); });
    return true;
}

void X11HotkeyBackend::stop() {
    if (!m_thread.joinable())
        return;
    m_stopRequested = true;
    wake();
    m_thread.join();
    m_stopRequested = false;
    m_reenableRequested = false;
    m_events = {};
}

void X11HotkeyBackend::reenable() {
    m_reenableRequested = true;
    wake();
}

void X11HotkeyBackend::wake() {
    const quint64 one = 1;
    [[maybe_unused]] const auto written = write(m_wakeFd, &one, sizeof one);
}

void X11HotkeyBackend::waitForWake(int timeoutMs) {
    pollfd wakeFd{m_wakeFd, POLLIN, 0};
    poll(&wakeFd, 1, timeoutMs);
    quint64 count = 0;
    [[maybe_unused]] const auto read_ = read(m_wakeFd, &count, sizeof count);
}

void X11HotkeyBackend::run(std::unique_ptr<Connection> connection) {
    pthread_setname_np(pthread_self(), "quorvane.hotkey");
    auto attach = [this, &connection](std::unique_ptr<Connection> next) {
        std::lock_guard lock(m_lock);
        connection = std::move(next);
        m_eventFd = connection ? ConnectionNumber(connection->display) : -1;
    };
    quint64 flags = connection->pressedFlags();

    while (!m_stopRequested) {
        if (!connection) {
            if (!m_reenableRequested.exchange(false)) {
                waitForWake(-1);
                continue;
            }
            QString failure;
            attach(Connection::openForEvents(&failure));
            if (connection) {
                flags = connection->pressedFlags();
            } else {
                m_events.sourceDisabled();
                // A server that is gone is tried again at most ten times a second.
                waitForWake(100);
            }
            continue;
        }
        // Nothing to turn back on while the connection holds.
        m_reenableRequested = false;

        Display *display = connection->display;
        while (!connection->broken && XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            XGenericEventCookie *cookie = &event.xcookie;
            if (cookie->type != GenericEvent || cookie->extension != connection->xiOpcode ||
                !XGetEventData(display, cookie))
                continue;
            const auto *raw = static_cast<const XIRawEvent *>(cookie->data);
            const bool press = cookie->evtype == XI_RawKeyPress;
            const bool known = press || cookie->evtype == XI_RawKeyRelease;
            const int code = raw->detail;
            const bool repeat = raw->flags & XIKeyRepeat;
            XFreeEventData(display, cookie);
            const quint64 mask = maskOf(code);
            if (!known || !mask || repeat)
                continue;
            flags = press ? flags | mask : flags & ~mask;
            m_events.keyChanged(code, flags);
        }
        if (connection->broken) {
            attach(nullptr);
            m_events.sourceDisabled();
            continue;
        }
        pollfd fds[2] = {{ConnectionNumber(display), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[1].revents)
            waitForWake(0);
    }
    attach(nullptr);
}

quint64 X11HotkeyBackend::liveFlags() {
    std::lock_guard lock(m_keymapLock);
    if (m_keymap && m_keymap->broken)
        m_keymap.reset();
    if (!m_keymap)
        m_keymap = Connection::open();
    return m_keymap ? m_keymap->pressedFlags() : 0;
}

QString X11HotkeyBackend::unavailableMessage() const {
    std::lock_guard lock(m_lock);
    return m_unavailable;
}

void X11HotkeyBackend::breakConnection() {
    std::lock_guard lock(m_lock);
    if (m_eventFd >= 0)
        shutdown(m_eventFd, SHUT_RDWR);
}
