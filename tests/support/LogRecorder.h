#pragma once

#include "core/Log.h"

#include <QStringList>
#include <QTemporaryDir>

// Collects the log entries of the test's thread as "LEVEL message" while it lives, and points the
// data directory at a temporary one so that tests never write into the user's log.
class LogRecorder {
public:
    LogRecorder() {
        qputenv("QUORVANE_HOME", m_home.path().toUtf8());
        Log::setObserver(
            [this](const QString &level, const QString &message) { lines << level + QLatin1Char(' ') + message; });
    }
    ~LogRecorder() {
        Log::setObserver({});
        Log::flush();
    }
    LogRecorder(const LogRecorder &) = delete;
    LogRecorder &operator=(const LogRecorder &) = delete;

    QStringList lines;

private:
    QTemporaryDir m_home;
};
