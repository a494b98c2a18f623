#pragma once

#include "core/HandOver.h"

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>
#include <QFuture>
#include <QPromise>
#include <QThreadPool>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

// Runs blocking work (file scans, /proc reads, path resolution) on the shared thread pool and
// resumes the awaiting coroutine on its own thread. An exception thrown by `work` is rethrown to
// the awaiter.
template <typename T> QCoro::Task<T> runOffThread(std::function<T()> work) {
    struct Outcome {
        std::optional<T> value;
        std::exception_ptr error;
    };
    auto outcome = std::make_shared<Outcome>();
    // QThreadPool wants a copyable callable, and QPromise is move-only.
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> done = promise->future();
    promise->start();
    std::function<void()> job = [outcome, promise, work = std::move(work)] {
        HandOver::received(QThreadPool::globalInstance());
        try {
            outcome->value.emplace(work());
        } catch (...) {
            outcome->error = std::current_exception();
        }
        HandOver::sent(outcome.get());
        promise->finish();
    };
    // The pool's queue stands for the lock inside it that orders this thread's writes before the job.
    HandOver::sent(QThreadPool::globalInstance());
    QThreadPool::globalInstance()->start(std::move(job));
    co_await done;
    HandOver::received(outcome.get());
    if (outcome->error)
        std::rethrow_exception(outcome->error);
    co_return std::move(*outcome->value);
}
