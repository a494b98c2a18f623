#pragma once

#include "platform/TextInjection.h"
#include "platform/linux/DesktopEntries.h"

#include <memory>
#include <mutex>

struct _XDisplay;

// The application in front on an X11 desktop: the window manager's active window, named by its
// desktop entry where one matches (else its WM_CLASS), with its process found through the X
// resource extension (else _NET_WM_PID).
class X11FrontmostApp final : public FrontmostAppProvider {
public:
    X11FrontmostApp();
    ~X11FrontmostApp() override;

    FrontmostApp frontmostApp() override;

private:
    _XDisplay *display();

    std::mutex m_mutex;
    _XDisplay *m_display = nullptr;
    std::unique_ptr<DesktopEntries> m_entries;
};
