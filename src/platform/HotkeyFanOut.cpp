#include "platform/HotkeyFanOut.h"

#include <utility>

class HotkeyFanOut::Tap final : public HotkeyBackend {
public:
    explicit Tap(std::shared_ptr<HotkeyFanOut> fanOut) : m_fanOut(std::move(fanOut)) {}
    ~Tap() override { m_fanOut->stop(this); }

    PhysicalKey physicalKey(PushToTalkKey key) const override { return m_fanOut->m_shared->physicalKey(key); }
    bool start(Events events) override { return m_fanOut->start(this, std::move(events)); }
    void stop() override { m_fanOut->stop(this); }
    void reenable() override { m_fanOut->m_shared->reenable(); }
    quint64 liveFlags() override { return m_fanOut->m_shared->liveFlags(); }
    QString unavailableMessage() const override { return m_fanOut->m_shared->unavailableMessage(); }
    QString deliveryDescription() const override { return m_fanOut->m_shared->deliveryDescription(); }

private:
    const std::shared_ptr<HotkeyFanOut> m_fanOut;
};

HotkeyFanOut::HotkeyFanOut(std::shared_ptr<HotkeyBackend> shared) : m_shared(std::move(shared)) {}

std::shared_ptr<HotkeyBackend> HotkeyFanOut::tap() {
    return std::make_shared<Tap>(shared_from_this());
}

bool HotkeyFanOut::start(const Tap *tap, HotkeyBackend::Events events) {
    {
        std::lock_guard lock(m_lock);
        m_listeners[tap] = std::move(events);
        if (m_running)
            return true;
        m_running = true;
    }
    // The shared backend holds the fan-out weakly: the taps own it, and it owns the backend.
    const std::weak_ptr<HotkeyFanOut> weak = weak_from_this();
    HotkeyBackend::Events all;
    all.keyChanged = [weak](int keyCode, quint64 flags) {
        if (const auto self = weak.lock()) {
            std::lock_guard delivering(self->m_lock);
            for (const auto &[listener, heard] : self->m_listeners)
                heard.keyChanged(keyCode, flags);
        }
    };
    all.sourceDisabled = [weak] {
        if (const auto self = weak.lock()) {
            std::lock_guard delivering(self->m_lock);
            for (const auto &[listener, heard] : self->m_listeners)
                heard.sourceDisabled();
        }
    };
    // Outside the lock: a backend delivers under a lock of its own, which its start takes too.
    if (m_shared->start(std::move(all)))
        return true;
    std::lock_guard lock(m_lock);
    m_listeners.erase(tap);
    m_running = false;
    return false;
}

void HotkeyFanOut::stop(const Tap *tap) {
    bool last = false;
    {
        std::lock_guard lock(m_lock);
        m_listeners.erase(tap);
        last = m_running && m_listeners.empty();
        if (last)
            m_running = false;
    }
    // Outside the lock: stopping waits for the event thread, which may be waiting for the lock.
    if (last)
        m_shared->stop();
}
