#pragma once

#include "core/Scheduler.h"
#include "core/SerialQueue.h"
#include "platform/GlobalHotkey.h"
#include "platform/HotkeyBackend.h"

#include <memory>
#include <mutex>
#include <vector>

// One push-to-talk key on any desktop: turns the backend's modifier changes into press and
// release callbacks, re-enables a source the system switched off, and while the key is held a
// watchdog compares the live keyboard with what was reported, making good a key-up that never came.
class PushToTalkHotkey final : public GlobalHotkey {
public:
    PushToTalkHotkey(PushToTalkKey key, std::shared_ptr<HotkeyBackend> backend,
                     Scheduler &scheduler = Scheduler::system());
    ~PushToTalkHotkey() override;
    PushToTalkHotkey(const PushToTalkHotkey &) = delete;
    PushToTalkHotkey &operator=(const PushToTalkHotkey &) = delete;

    bool start() override;
    void stop() override;
    void updateKey(PushToTalkKey key) override;

private:
    void keyChanged(int keyCode, quint64 flags);
    void armWatchdog(quint64 press);
    void checkWatchdog(quint64 press);
    void deliverChanges();

    const std::shared_ptr<HotkeyBackend> m_backend;
    Scheduler &m_scheduler;
    // Posted callbacks hold this weakly: the hotkey is not itself shared.
    const std::shared_ptr<int> m_alive = std::make_shared<int>(0);

    std::mutex m_lock;
    PhysicalKey m_key;
    bool m_isDown = false;
    // Counts presses, so a watchdog of an earlier press never releases a later one.
    quint64 m_presses = 0;
    Scheduler::Handle m_watchdog;
    // Changes not yet handed to the callbacks, in the order they were made (true: press).
    std::vector<bool> m_undelivered;

    // Last, so it is destroyed first: a watchdog check in flight finishes while the state it
    // reads still exists.
    SerialQueue m_watchdogQueue{QStringLiteral("com.quorvane.hotkey.watchdog")};
};
