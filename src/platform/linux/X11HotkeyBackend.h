#pragma once

#include "platform/HotkeyBackend.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

// Mode keys from XInput2 raw key events on the root window, so every keyboard is seen whichever
// window has the focus and whatever grabs are active. The event thread owns a display connection
// of its own; liveFlags() asks the server on a second one, so it may be called from any thread.
class X11HotkeyBackend final : public HotkeyBackend {
public:
    X11HotkeyBackend();
    ~X11HotkeyBackend() override;

    PhysicalKey physicalKey(PushToTalkKey key) const override { return PhysicalKey::x11(key); }
    bool start(Events events) override;
    // Not from the event thread.
    void stop() override;
    void reenable() override;
    quint64 liveFlags() override;
    QString unavailableMessage() const override;
    QString deliveryDescription() const override { return QStringLiteral("dedicated event thread"); }

    // Cuts the event thread's connection as a dying server would; for tests.
    void breakConnection();

private:
    struct Connection;

    void run(std::unique_ptr<Connection> connection);
    void waitForWake(int timeoutMs);
    void wake();

    Events m_events;
    std::thread m_thread;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_reenableRequested{false};
    // Written to wake the event thread at once.
    int m_wakeFd = -1;
    int m_eventFd = -1; // guarded by m_lock

    mutable std::mutex m_lock;
    QString m_unavailable;

    std::mutex m_keymapLock;
    std::unique_ptr<Connection> m_keymap;
};
