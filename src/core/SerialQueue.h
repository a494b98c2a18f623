#pragma once

#include <QString>
#include <QtGlobal>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

// One worker thread running submitted jobs in FIFO order: file writes and other work that must
// never interleave and never block the main thread. Jobs still queued at destruction are run;
// delayed jobs that are not due yet are dropped.
class SerialQueue {
public:
    // The thread and its jobs. Shared with the thread itself, so a queue destroyed from one of its
    // own jobs (its owner's last reference dropped there) lets the thread finish instead of
    // joining itself.
    class Worker {
    public:
        explicit Worker(QString label) : m_label(std::move(label)) {}
        // False once the worker has stopped; the job is then dropped.
        bool async(std::function<void()> job);
        void asyncAfter(qint64 delayMs, std::function<void()> job);
        void sync(const std::function<void()> &job);
        bool isCurrentThread() const { return std::this_thread::get_id() == m_threadID; }
        const QString &label() const { return m_label; }

    private:
        friend class SerialQueue;
        void run();

        QString m_label;
        std::mutex m_mutex;
        std::condition_variable m_wake;
        std::deque<std::function<void()>> m_jobs;
        // Due time on the steady clock, then submission order.
        std::multimap<std::pair<std::chrono::steady_clock::time_point, std::uint64_t>, std::function<void()>> m_timed;
        std::uint64_t m_sequence = 0;
        bool m_stopping = false;
        bool m_finished = false;
        std::thread::id m_threadID;
    };

    explicit SerialQueue(QString label);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    const QString &label() const { return m_worker->label(); }
    // Runs `job` later on the worker thread; returns at once.
    void async(std::function<void()> job) { m_worker->async(std::move(job)); }
    // Runs `job` on the worker thread once `delayMs` have passed on the real clock. Code that
    // tests must drive by hand goes through Scheduler::scheduleOn instead.
    void asyncAfter(qint64 delayMs, std::function<void()> job) { m_worker->asyncAfter(delayMs, std::move(job)); }
    // Runs `job` on the worker thread and waits for it (and for everything queued before it).
    void sync(const std::function<void()> &job) { m_worker->sync(job); }
    // Waits until every job queued so far has run.
    void drain() {
        sync([] {});
    }
    bool isCurrentThread() const { return m_worker->isCurrentThread(); }
    // For schedulers that hold queued work past the queue's life.
    std::weak_ptr<Worker> worker() const { return m_worker; }

private:
    std::shared_ptr<Worker> m_worker;
    std::thread m_thread;
};
