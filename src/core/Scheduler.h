#pragma once

#include "core/SerialQueue.h"

#include <QCoro/QCoroTask>
#include <QtGlobal>
#include <atomic>
#include <coroutine>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

// Time as the rest of the system sees it. Code with timers takes a Scheduler so that tests can
// drive time by hand (ManualScheduler) instead of sleeping.
class Scheduler {
public:
    // Cancels the action when set; an action that already ran is unaffected.
    using Handle = std::shared_ptr<std::atomic<bool>>;

    virtual ~Scheduler() = default;
    // Milliseconds on a monotonic clock.
    virtual qint64 nowMs() const = 0;
    // Runs `action` on the calling thread's event loop after `delayMs`.
    virtual Handle schedule(qint64 delayMs, std::function<void()> action) = 0;
    // Runs `action` on `queue`'s worker thread after `delayMs`. The action must hold whatever it
    // touches weakly or be cancelled before that dies; an action whose queue is gone is dropped.
    Handle scheduleOn(SerialQueue &queue, qint64 delayMs, std::function<void()> action) {
        return scheduleOn(queue.worker(), delayMs, std::move(action));
    }
    virtual Handle scheduleOn(std::weak_ptr<SerialQueue::Worker> queue, qint64 delayMs,
                              std::function<void()> action) = 0;
    // Runs `action` on `queue` after `firstMs`, then every `intervalMs`, until the handle is cancelled.
    Handle repeatOn(SerialQueue &queue, qint64 firstMs, qint64 intervalMs, std::function<void()> action);

    static void cancel(const Handle &handle) {
        if (handle)
            handle->store(true);
    }
    // Suspends the calling coroutine for `delayMs`.
    QCoro::Task<void> sleep(qint64 delayMs);

    // The real clock and Qt timers.
    static Scheduler &system();
};

// Time that moves only when a test says so. Due actions run in order of their due time, then of
// scheduling.
class ManualScheduler final : public Scheduler {
public:
    qint64 nowMs() const override;
    Handle schedule(qint64 delayMs, std::function<void()> action) override;
    // Due work runs on its queue's thread while advance() waits for it.
    using Scheduler::scheduleOn;
    Handle scheduleOn(std::weak_ptr<SerialQueue::Worker> queue, qint64 delayMs, std::function<void()> action) override;
    // Moves time forward by `ms`, running every action that falls due on the way.
    void advance(qint64 ms);
    std::size_t pendingCount() const;

private:
    struct Entry {
        Handle handle;
        std::function<void()> action;
        // Empty for work that runs on the thread calling advance().
        std::weak_ptr<SerialQueue::Worker> queue;
        bool onQueue = false;
    };
    Handle add(qint64 delayMs, Entry entry);
    mutable std::mutex m_mutex;
    qint64 m_now = 0;
    std::uint64_t m_sequence = 0;
    std::multimap<std::pair<qint64, std::uint64_t>, Entry> m_entries;
};
