#pragma once

#include "core/Config.h"

#include <QString>
#include <QtGlobal>
#include <functional>

// A mode key as the desktop's key events name it: the physical key's code, and the bit that is
// set in the event's modifier flags while that key (and not its left-hand twin) is down.
struct PhysicalKey {
    int code = 0;
    quint64 flagMask = 0;
    QString displayName;

    bool operator==(const PhysicalKey &) const = default;

    // Quartz virtual key codes and device-dependent flag bits.
    static PhysicalKey mac(PushToTalkKey key);
    // X11 key codes (evdev code + 8). X11 has no per-side modifier bits, so the backend reports
    // flags of its own: one bit per key below, set while that physical key is down.
    static PhysicalKey x11(PushToTalkKey key);
};

// The operating-system side of a push-to-talk key: reports modifier key changes from a thread of
// its own and answers what the keyboard looks like right now. All policy (which key, what counts
// as a press, the watchdog, recovery, logging) lives in PushToTalkHotkey.
class HotkeyBackend {
public:
    struct Events {
        // A modifier key changed: the key's code and the modifier flags after the change.
        std::function<void(int keyCode, quint64 flags)> keyChanged;
        // The platform stopped delivering events to us (for example it disabled the event source,
        // or the connection to the display broke).
        std::function<void()> sourceDisabled;
    };

    virtual ~HotkeyBackend() = default;

    virtual PhysicalKey physicalKey(PushToTalkKey key) const = 0;
    // Creates the event source and starts the event thread, which calls `events` until stop().
    // False when the platform refuses; unavailableMessage() then says why, for the log.
    virtual bool start(Events events) = 0;
    // Ends the event thread; no event is delivered once it returns. Safe when not started.
    virtual void stop() = 0;
    // Turns a disabled event source back on. Called from the event thread or any other.
    virtual void reenable() = 0;
    // The modifier flags of the keyboard as it is now, in the same bits as keyChanged's flags.
    virtual quint64 liveFlags() = 0;
    virtual QString unavailableMessage() const = 0;
    // How key events reach us, for the log line that says the key is armed.
    virtual QString deliveryDescription() const = 0;

    // Why macOS refuses an event tap: the process lacks the Accessibility permission.
    static QString eventTapRefused();
};
