#pragma once

#include <QString>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// One worker thread running submitted jobs in FIFO order: file writes and other work that must
// never interleave and never block the main thread. Jobs still queued at destruction are run.
class SerialQueue {
public:
    explicit SerialQueue(QString label);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    const QString &label() const { return m_label; }
    // Runs `job` later on the worker thread; returns at once.
    void async(std::function<void()> job);
    // Runs `job` on the worker thread and waits for it (and for everything queued before it).
    void sync(const std::function<void()> &job);
    // Waits until every job queued so far has run.
    void drain() {
        sync([] {});
    }
    bool isCurrentThread() const { return std::this_thread::get_id() == m_thread.get_id(); }

private:
    void run();

    QString m_label;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_stopping = false;
    std::thread m_thread;
};
