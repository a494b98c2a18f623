#include "core/SerialQueue.h"

#include <future>

SerialQueue::SerialQueue(QString label) : m_label(std::move(label)), m_thread([this] { run(); }) {}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void SerialQueue::async(std::function<void()> job) {
    {
        std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void SerialQueue::sync(const std::function<void()> &job) {
    if (isCurrentThread()) {
        job();
        return;
    }
    std::promise<void> done;
    async([&] {
        job();
        done.set_value();
    });
    done.get_future().wait();
}

void SerialQueue::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
            if (m_jobs.empty())
                return; // stopping and drained
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        job();
    }
}
