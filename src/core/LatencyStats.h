#pragma once

#include <QList>
#include <QtGlobal>
#include <mutex>
#include <optional>

// The most recent latencies (at most `limit`), safe to use from any thread.
class LatencyStats {
public:
    static constexpr qsizetype limit = 200;

    void record(qint64 ms);
    // Nearest-rank percentile: rank ceil(p/100 × n) clamped to 1...n; none without samples.
    std::optional<qint64> percentile(double p) const;
    QList<qint64> samples() const;

private:
    mutable std::mutex m_mutex;
    QList<qint64> m_samples;
};
