#pragma once

#include "platform/HotkeyBackend.h"

#include <map>
#include <memory>
#include <mutex>

// One key watcher for all the mode keys: each key event then wakes one thread and reaches one
// connection, rather than one per mode key, typing and pasting included. Each tap is the backend of
// one PushToTalkHotkey; the shared backend runs while any tap is started. Taps are started and
// stopped from one thread, as the keys are armed.
class HotkeyFanOut final : public std::enable_shared_from_this<HotkeyFanOut> {
public:
    explicit HotkeyFanOut(std::shared_ptr<HotkeyBackend> shared);

    std::shared_ptr<HotkeyBackend> tap();

private:
    class Tap;
    bool start(const Tap *tap, HotkeyBackend::Events events);
    void stop(const Tap *tap);

    const std::shared_ptr<HotkeyBackend> m_shared;
    // Held while events go out, so that a tap hears nothing once its stop() returns.
    std::mutex m_lock;
    std::map<const Tap *, HotkeyBackend::Events> m_listeners;
    bool m_running = false;
};
