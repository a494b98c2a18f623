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
    using Scheduler::scheduleOn;
    Handle scheduleOn(std::weak_ptr<SerialQueue::Worker> queue, qint64 delayMs, std::function<void()> action) override {
        auto handle = std::make_shared<std::atomic<bool>>(false);
        if (auto worker = queue.lock())
            worker->asyncAfter(delayMs, [handle, action = std::move(action)] {
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

namespace {

// Each firing schedules the next with a copy of itself; cancelling the shared handle ends the chain.
struct Repetition {
    Scheduler *scheduler;
    std::weak_ptr<SerialQueue::Worker> queue;
    Scheduler::Handle handle;
    qint64 intervalMs;
    std::shared_ptr<std::function<void()>> action;

    void operator()() const {
        if (handle->load())
            return;
        (*action)();
        if (handle->load())
            return;
        // The shared handle, not the one returned here, cancels the chain.
        scheduler->scheduleOn(queue, intervalMs, *this);
    }
};

} // namespace

Scheduler::Handle Scheduler::repeatOn(SerialQueue &queue, qint64 firstMs, qint64 intervalMs,
                                      std::function<void()> action) {
    auto handle = std::make_shared<std::atomic<bool>>(false);
    Repetition repetition{this, queue.worker(), handle, intervalMs,
                          std::make_shared<std::function<void()>>(std::move(action))};
    scheduleOn(queue, firstMs, repetition);
    return handle;
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

Scheduler::Handle ManualScheduler::add(qint64 delayMs, Entry entry) {
    Handle handle = entry.handle;
    std::lock_guard lock(m_mutex);
    m_entries.emplace(std::make_pair(m_now + std::max<qint64>(delayMs, 0), m_sequence++), std::move(entry));
    return handle;
}

Scheduler::Handle ManualScheduler::schedule(qint64 delayMs, std::function<void()> action) {
    return add(delayMs, Entry{std::make_shared<std::atomic<bool>>(false), std::move(action), {}, false});
}

Scheduler::Handle ManualScheduler::scheduleOn(std::weak_ptr<SerialQueue::Worker> queue, qint64 delayMs,
                                              std::function<void()> action) {
    return add(delayMs, Entry{std::make_shared<std::atomic<bool>>(false), std::move(action), std::move(queue), true});
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
        if (entry.handle->load())
            continue;
        if (!entry.onQueue) {
            entry.action();
        } else if (auto queue = entry.queue.lock()) {
            queue->sync([&] {
                if (!entry.handle->load())
                    entry.action();
            });
        }
    }
}

std::size_t ManualScheduler::pendingCount() const {
    std::lock_guard lock(m_mutex);
    std::size_t count = 0;
    for (const auto &[key, entry] : m_entries)
        count += entry.handle->load() ? 0 : 1;
    return count;
}
