#include "core/Scheduler.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

namespace {

class SystemScheduler final : public Scheduler {
public:
    SystemScheduler() { m_clock.start(); }
    qint64 nowMs() const override { return m_clock.elapsed(); }
    Handle schedule(qint64 delayMs, std::function<void()> action) override {
        auto handle = std::make_shared<std::atomic<bool>>(false);
        QTimer::singleShot(std::max<qint64>(delayMs, 0), [handle, action = std::move(action)] {
            if (!handle->load())
                action();
        });
        return handle;
    }

private:
    QElapsedTimer m_clock;
};

} // namespace

Scheduler &Scheduler::system() {
    static SystemScheduler instance;
    return instance;
}

QCoro::Task<void> Scheduler::sleep(qint64 delayMs) {
    struct Awaiter {
        Awaiter(Scheduler *owner, qint64 ms) : scheduler(owner), delay(ms) {}
        Scheduler *scheduler;
        qint64 delay;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> waiting) {
            scheduler->schedule(delay, [waiting] { waiting.resume(); });
        }
        void await_resume() const noexcept {}
    };
    co_await Awaiter(this, delayMs);
}

qint64 ManualScheduler::nowMs() const {
    std::lock_guard lock(m_mutex);
    return m_now;
}

Scheduler::Handle ManualScheduler::schedule(qint64 delayMs, std::function<void()> action) {
    auto handle = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(m_mutex);
    m_entries.emplace(std::make_pair(m_now + std::max<qint64>(delayMs, 0), m_sequence++),
                      Entry{handle, std::move(action)});
    return handle;
}

void ManualScheduler::advance(qint64 ms) {
    qint64 target;
    {
        std::lock_guard lock(m_mutex);
        target = m_now + ms;
    }
    for (;;) {
        Entry entry;
        {
            std::lock_guard lock(m_mutex);
            auto first = m_entries.begin();
            if (first == m_entries.end() || first->first.first > target) {
                m_now = target;
                return;
            }
            m_now = first->first.first;
            entry = std::move(first->second);
            m_entries.erase(first);
        }
        if (!entry.handle->load())
            entry.action();
    }
}

std::size_t ManualScheduler::pendingCount() const {
    std::lock_guard lock(m_mutex);
    std::size_t count = 0;
    for (const auto &[key, entry] : m_entries)
        count += entry.handle->load() ? 0 : 1;
    return count;
}
