#pragma once

#include "platform/HotkeyBackend.h"

#include <atomic>
#include <mutex>
#include <thread>

// A keyboard a test plays by hand. Events go out under a lock that stop() also takes, so nothing is
// delivered once stop() returns, as a real backend promises. The physical keys are the Mac ones.
class ScriptedHotkeyBackend final : public HotkeyBackend {
public:
    PhysicalKey physicalKey(PushToTalkKey key) const override { return PhysicalKey::mac(key); }

    bool start(Events events) override {
        std::lock_guard lock(m_delivery);
        ++starts;
        if (refuseStart)
            return false;
        if (m_events.keyChanged)
            ++startsWhileRunning;
        m_events = std::move(events);
        return true;
    }
    void stop() override {
        std::lock_guard lock(m_delivery);
        m_events = {};
    }
    void reenable() override { ++reenables; }
    quint64 liveFlags() override { return live; }
    QString unavailableMessage() const override { return QStringLiteral("scripted refusal"); }
    QString deliveryDescription() const override { return QStringLiteral("scripted keyboard"); }

    // Sets the live state and reports the change, as the desktop would.
    void change(int keyCode, quint64 flags) {
        live = flags;
        std::lock_guard lock(m_delivery);
        if (m_events.keyChanged)
            m_events.keyChanged(keyCode, flags);
    }
    // The same from a thread of its own, for races; join the result.
    std::thread changeFromThread(int keyCode, quint64 flags) {
        return std::thread([this, keyCode, flags] { change(keyCode, flags); });
    }
    void disableSource() {
        std::lock_guard lock(m_delivery);
        if (m_events.sourceDisabled)
            m_events.sourceDisabled();
    }
    bool isRunning() {
        std::lock_guard lock(m_delivery);
        return bool(m_events.keyChanged);
    }

    std::atomic<quint64> live{0};
    std::atomic<bool> refuseStart{false};
    std::atomic<int> starts{0};
    std::atomic<int> startsWhileRunning{0};
    std::atomic<int> reenables{0};

private:
    std::mutex m_delivery;
    Events m_events;
};
