#include "platform/PushToTalkHotkey.h"

#include "core/Log.h"
#include "core/MainThread.h"

#include <utility>

namespace {

constexpr qint64 watchdogFirstMs = 900;
constexpr qint64 watchdogIntervalMs = 250;

} // namespace

PushToTalkHotkey::PushToTalkHotkey(PushToTalkKey key, std::shared_ptr<HotkeyBackend> backend, Scheduler &scheduler)
    : m_backend(std::move(backend)), m_scheduler(scheduler), m_key(m_backend->physicalKey(key)) {}

PushToTalkHotkey::~PushToTalkHotkey() {
    stop();
}

bool PushToTalkHotkey::start() {
    stop();
    // Plain `this` is safe here: the backend delivers nothing once stop() has returned, and the
    // destructor stops it.
    HotkeyBackend::Events events;
    events.keyChanged = [this](int keyCode, quint64 flags) { keyChanged(keyCode, flags); };
    events.sourceDisabled = [this] {
        m_backend->reenable();
        Log::warn(QStringLiteral("The system disabled our event tap; re-enabled it."));
    };
    if (!m_backend->start(std::move(events))) {
        Log::error(m_backend->unavailableMessage());
        return false;
    }
    QString name;
    {
        std::lock_guard lock(m_lock);
        name = m_key.displayName;
    }
    Log::info(QStringLiteral("Hotkey armed · hold ") + name + QStringLiteral(" (") + m_backend->deliveryDescription() +
              QStringLiteral(")"));
    return true;
}

void PushToTalkHotkey::stop() {
    // The backend first: once it is quiet no event can arm a watchdog behind our back.
    m_backend->stop();
    std::lock_guard lock(m_lock);
    Scheduler::cancel(std::exchange(m_watchdog, {}));
    m_isDown = false;
}

void PushToTalkHotkey::updateKey(PushToTalkKey key) {
    PhysicalKey physical = m_backend->physicalKey(key);
    std::lock_guard lock(m_lock);
    m_key = std::move(physical);
    Scheduler::cancel(std::exchange(m_watchdog, {}));
    m_isDown = false;
}

void PushToTalkHotkey::keyChanged(int keyCode, quint64 flags) {
    bool down;
    quint64 press;
    {
        std::lock_guard lock(m_lock);
        if (keyCode != m_key.code)
            return;
        down = (flags & m_key.flagMask) != 0;
        if (down == m_isDown)
            return; // another modifier moved while the key is held, or a repeat
        m_isDown = down;
        press = down ? ++m_presses : m_presses;
        Scheduler::cancel(std::exchange(m_watchdog, {}));
        m_undelivered.push_back(down);
    }
    if (down)
        armWatchdog(press);
    postToMainThread(m_alive, [this] { deliverChanges(); });
}

void PushToTalkHotkey::armWatchdog(quint64 press) {
    Scheduler::Handle watchdog = m_scheduler.repeatOn(m_watchdogQueue, watchdogFirstMs, watchdogIntervalMs,
                                                      [this, press] { checkWatchdog(press); });
    std::lock_guard lock(m_lock);
    // The press may already be over (released, stopped or forgotten) by now.
    if (m_isDown && m_presses == press)
        std::swap(m_watchdog, watchdog);
    Scheduler::cancel(watchdog);
}

void PushToTalkHotkey::checkWatchdog(quint64 press) {
    quint64 mask;
    {
        std::lock_guard lock(m_lock);
        if (!m_isDown || m_presses != press)
            return;
        mask = m_key.flagMask;
    }
    if (m_backend->liveFlags() & mask)
        return;
    Log::warn(QStringLiteral("Key-up was never delivered (tap likely interrupted); recovering."));
    {
        std::lock_guard lock(m_lock);
        // A real key-up (or a new press) may have come in since the check above.
        if (!m_isDown || m_presses != press)
            return;
        m_isDown = false;
        Scheduler::cancel(std::exchange(m_watchdog, {}));
        m_undelivered.push_back(false);
    }
    postToMainThread(m_alive, [this] { deliverChanges(); });
}

void PushToTalkHotkey::deliverChanges() {
    // Changes from the event thread and the watchdog are queued under the lock and delivered
    // here, so their order is the order they were made whichever post runs first.
    std::vector<bool> changes;
    {
        std::lock_guard lock(m_lock);
        changes.swap(m_undelivered);
    }
    const std::weak_ptr<int> alive = m_alive;
    for (const bool down : changes) {
        if (alive.expired())
            return; // a callback destroyed us
        const std::function<void()> callback = down ? onPress : onRelease;
        if (callback)
            callback();
    }
}
