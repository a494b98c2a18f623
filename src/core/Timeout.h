#pragma once

#include "core/Scheduler.h"

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>

// The outcome of an operation run under a time budget: its value, its error, or "timed out".
template <typename T> struct TimeoutOutcome {
    using Value = std::conditional_t<std::is_void_v<T>, bool, T>;
    std::optional<Value> value;
    std::exception_ptr error;

    bool timedOut() const { return !value && !error; }
    // The value, or the operation's error rethrown. Only call when !timedOut().
    Value get() const {
        if (error)
            std::rethrow_exception(error);
        return *value;
    }
};

namespace detail {

// Resolved once: the first of the operation and the timer wins, later resolutions are dropped.
template <typename T> class TimeoutResolution {
public:
    TimeoutResolution() : m_anchor(new QObject) {}
    ~TimeoutResolution() {
        if (m_anchor)
            m_anchor->deleteLater();
    }

    bool resolve(TimeoutOutcome<T> outcome) {
        std::coroutine_handle<> waiting;
        {
            std::lock_guard lock(m_mutex);
            if (m_resolved)
                return false;
            m_resolved = true;
            m_outcome = std::move(outcome);
            waiting = std::exchange(m_waiting, {});
        }
        // Resume on the waiting coroutine's thread and stack, never inside the winner's frame.
        if (waiting)
            QMetaObject::invokeMethod(
                m_anchor, [waiting] { waiting.resume(); }, Qt::QueuedConnection);
        return true;
    }

    class Awaiter {
    public:
        explicit Awaiter(TimeoutResolution *owner) : m_owner(owner) {}
        bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> handle) {
            std::lock_guard lock(m_owner->m_mutex);
            if (m_owner->m_resolved)
                return false;
            m_owner->m_waiting = handle;
            return true;
        }
        TimeoutOutcome<T> await_resume() {
            std::lock_guard lock(m_owner->m_mutex);
            return std::move(m_owner->m_outcome);
        }

    private:
        TimeoutResolution *m_owner;
    };

private:
    std::mutex m_mutex;
    bool m_resolved = false;
    TimeoutOutcome<T> m_outcome;
    std::coroutine_handle<> m_waiting;
    QObject *m_anchor;
};

} // namespace detail

// Races `operation` against a timer of `milliseconds`. Exactly one outcome is delivered; the loser
// keeps running and is ignored, so the operation must own what it touches.
template <typename T>
QCoro::Task<TimeoutOutcome<T>> withTimeout(qint64 milliseconds, std::function<QCoro::Task<T>()> operation,
                                           Scheduler &scheduler = Scheduler::system()) {
    auto resolution = std::make_shared<detail::TimeoutResolution<T>>();
    [](std::shared_ptr<detail::TimeoutResolution<T>> state, std::function<QCoro::Task<T>()> op) -> QCoro::Task<void> {
        TimeoutOutcome<T> outcome;
        try {
            if constexpr (std::is_void_v<T>) {
                co_await op();
                outcome.value = true;
            } else {
                outcome.value = co_await op();
            }
        } catch (...) {
            outcome.error = std::current_exception();
        }
        state->resolve(std::move(outcome));
    }(resolution, std::move(operation));
    auto timer = scheduler.schedule(milliseconds, [resolution] { resolution->resolve(TimeoutOutcome<T>{}); });
    auto outcome = co_await typename detail::TimeoutResolution<T>::Awaiter(resolution.get());
    if (!outcome.timedOut())
        Scheduler::cancel(timer);
    co_return outcome;
}
