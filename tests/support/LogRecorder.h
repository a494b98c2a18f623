#pragma once

#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <mutex>

// Collects log entries as "LEVEL message" while it lives, and points the data directory at a
// temporary one so that tests never write into the user's log.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder &) = delete;
    LogRecorder &operator=(const LogRecorder &) = delete;

    QStringList lines() const;
    void clear();

private:
    struct Shared {
        std::mutex mutex;
        QStringList lines;
    };
    QTemporaryDir m_home;
    std::shared_ptr<Shared> m_shared = std::make_shared<Shared>();
};
