#include "platform/linux/X11FrontmostApp.h"

#include "platform/linux/X11Errors.h"
#include "platform/linux/X11Windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

X11FrontmostApp::X11FrontmostApp() = default;

X11FrontmostApp::~X11FrontmostApp() {
    if (m_display)
        XCloseDisplay(m_display);
}

_XDisplay *X11FrontmostApp::display() {
    if (!m_display) {
        X11Errors::installTolerantHandler();
        m_display = XOpenDisplay(nullptr);
    }
    return m_display;
}

FrontmostApp X11FrontmostApp::frontmostApp() {
    std::lock_guard lock(m_mutex);
    Display *x = display();
    if (!x)
        return {};
    const Window window = X11Windows::activeWindow(x);
    if (window == None)
        return {};

    DesktopEntries::Window identity;
    if (const auto windowClass = X11Windows::classOf(x, window)) {
        identity.wmInstance = windowClass->instance;
        identity.wmClass = windowClass->name;
    }
    const Atom utf8 = XInternAtom(x, "UTF8_STRING", False);
    for (const char *name : {"_GTK_APPLICATION_ID", "_KDE_NET_WM_DESKTOP_FILE"})
        if (const auto id = X11Windows::readProperty(x, window, name, utf8); id && !id->isEmpty()) {
            identity.applicationID = QString::fromUtf8(*id).remove(QChar(0));
            break;
        }

    // The entries are read once, on first use: installing an application while we run only costs
    // it its pretty name until the next start.
    if (!m_entries)
        m_entries = std::make_unique<DesktopEntries>(DesktopEntries::standardDataDirs());
    FrontmostApp app = m_entries->describe(identity);
    app.processID = X11Windows::processOf(x, window);
    return app;
}
