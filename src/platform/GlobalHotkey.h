#pragma once

#include "core/Config.h"

#include <functional>

// Watches one push-to-talk key system-wide. Callbacks always arrive on the main thread.
class GlobalHotkey {
public:
    virtual ~GlobalHotkey() = default;

    std::function<void()> onPress;
    std::function<void()> onRelease;

    // Arms the watcher; false when the platform refused (for example a missing permission).
    virtual bool start() = 0;
    // Safe to call when not started.
    virtual void stop() = 0;
    // Watches another key from now on; a key held at that moment gets no release callback.
    virtual void updateKey(PushToTalkKey key) = 0;
};

// Where no hotkey service exists: never fires.
class UnsupportedHotkey final : public GlobalHotkey {
public:
    bool start() override { return false; }
    void stop() override {}
    void updateKey(PushToTalkKey) override {}
};
