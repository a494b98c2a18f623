#pragma once

#include "core/HandOver.h"

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QEventLoop>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>

// Runs `work` on the thread of `context` (normally the main thread) unless `context` has been
// destroyed by then: callbacks from worker threads never touch a dead owner.
template <typename Context, typename Work> void runOn(Context *context, Work &&work) {
    // The context stands for the lock of its thread's event queue.
    HandOver::sent(context);
    QPointer<Context> guard(context);
    QMetaObject::invokeMethod(
        context,
        [context, guard, work = std::forward<Work>(work)]() mutable {
            HandOver::received(context);
            if (guard)
                work();
        },
        Qt::QueuedConnection);
}

// Starts a task nobody awaits; an exception escaping it is handed to `onError` instead of vanishing.
template <typename T> void detach(QCoro::Task<T> task, std::function<void(std::exception_ptr)> onError = {}) {
    [](QCoro::Task<T> inner, std::function<void(std::exception_ptr)> handler) -> QCoro::Task<void> {
        try {
            co_await std::move(inner);
        } catch (...) {
            if (handler)
                handler(std::current_exception());
        }
    }(std::move(task), std::move(onError));
}

// Runs the event loop until `task` finishes and returns its value or rethrows its exception.
// For tests and command-line code; QCoro's own waitFor hangs when the task throws.
template <typename T> T syncWait(QCoro::Task<T> task) {
    QEventLoop loop;
    bool finished = false;
    std::exception_ptr error;
    std::conditional_t<std::is_void_v<T>, bool, std::optional<T>> result{};
    auto runner = [&]() -> QCoro::Task<void> {
        try {
            if constexpr (std::is_void_v<T>)
                co_await std::move(task);
            else
                result.emplace(co_await std::move(task));
        } catch (...) {
            error = std::current_exception();
        }
        finished = true;
        loop.quit();
    };
    auto running = runner();
    if (!finished)
        loop.exec();
    if (error)
        std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*result);
}
