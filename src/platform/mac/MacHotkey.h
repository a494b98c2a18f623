#pragma once

#include "platform/HotkeyBackend.h"

#include <memory>
#include <mutex>

// Modifier changes from a listen-only Quartz event tap, on a thread of its own so a busy main
// thread never delays a key. Needs the Accessibility permission.
class MacHotkey final : public HotkeyBackend {
public:
    MacHotkey();
    ~MacHotkey() override;
    MacHotkey(const MacHotkey &) = delete;
    MacHotkey &operator=(const MacHotkey &) = delete;

    PhysicalKey physicalKey(PushToTalkKey key) const override { return PhysicalKey::mac(key); }
    bool start(Events events) override;
    void stop() override;
    void reenable() override;
    quint64 liveFlags() override;
    QString unavailableMessage() const override { return eventTapRefused(); }
    QString deliveryDescription() const override { return QStringLiteral("dedicated event thread"); }

    // Opens the privacy pane where the user grants the Accessibility permission.
    static void openAccessibilitySettings();

private:
    // The tap, its run-loop source and the thread that drives them, while started.
    struct Tap;

    // Guards m_tap: reenable() may come from the event thread while stop() runs.
    std::mutex m_lock;
    std::unique_ptr<Tap> m_tap;
};
