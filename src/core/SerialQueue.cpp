#include "core/SerialQueue.h"

#include <future>

SerialQueue::SerialQueue(QString label) : m_worker(std::make_shared<Worker>(std::move(label))) {
    std::promise<void> started;
    m_thread = std::thread([worker = m_worker, &started] {
        worker->m_threadID = std::this_thread::get_id();
        started.set_value();
        worker->run();
    });
    started.get_future().wait();
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(m_worker->m_mutex);
        m_worker->m_stopping = true;
    }
    m_worker->m_wake.notify_all();
    if (m_worker->isCurrentThread())
        m_thread.detach(); // the thread holds the worker and ends after this job
    else
        m_thread.join();
}

bool SerialQueue::Worker::async(std::function<void()> job) {
    // Woken under the lock: once it is released the job may run and drop the last reference to
    // this worker, so nothing here may touch it afterwards.
    std::lock_guard lock(m_mutex);
    if (m_finished)
        return false;
    m_jobs.push_back(std::move(job));
    m_wake.notify_one();
    return true;
}

void SerialQueue::Worker::asyncAfter(qint64 delayMs, std::function<void()> job) {
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max<qint64>(delayMs, 0));
    std::lock_guard lock(m_mutex);
    if (m_stopping)
        return;
    m_timed.emplace(std::make_pair(due, m_sequence++), std::move(job));
    m_wake.notify_one();
}

void SerialQueue::Worker::sync(const std::function<void()> &job) {
    if (isCurrentThread()) {
        job();
        return;
    }
    std::promise<void> done;
    const bool queued = async([&] {
        job();
        done.set_value();
    });
    if (queued)
        done.get_future().wait();
}

void SerialQueue::Worker::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(m_mutex);
            for (;;) {
                const auto now = std::chrono::steady_clock::now();
                if (!m_timed.empty() && m_timed.begin()->first.first <= now && !m_stopping) {
                    job = std::move(m_timed.begin()->second);
                    m_timed.erase(m_timed.begin());
                    break;
                }
                if (!m_jobs.empty()) {
                    job = std::move(m_jobs.front());
                    m_jobs.pop_front();
                    break;
                }
                if (m_stopping) {
                    m_finished = true;
                    // Dropped outside the lock: a closure's destructor may release the last
                    // reference to some object that takes this lock again.
                    auto dropped = std::move(m_timed);
                    m_timed.clear();
                    lock.unlock();
                    return;
                }
                if (m_timed.empty())
                    m_wake.wait(lock);
                else
                    m_wake.wait_until(lock, m_timed.begin()->first.first);
            }
        }
        job();
    }
}
