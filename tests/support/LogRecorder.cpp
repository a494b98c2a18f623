#include "LogRecorder.h"

#include "core/Log.h"

LogRecorder::LogRecorder() {
    qputenv("QUORVANE_HOME", m_home.path().toUtf8());
    Log::setObserver([shared = m_shared](const QString &level, const QString &message) {
        std::lock_guard lock(shared->mutex);
        shared->lines.append(level + QLatin1Char(' ') + message);
    });
}

LogRecorder::~LogRecorder() {
    Log::setObserver({});
    Log::flush();
}

QStringList LogRecorder::lines() const {
    std::lock_guard lock(m_shared->mutex);
    return m_shared->lines;
}

void LogRecorder::clear() {
    std::lock_guard lock(m_shared->mutex);
    m_shared->lines.clear();
}
