#include "core/LatencyStats.h"

#include <algorithm>
#include <cmath>

void LatencyStats::record(qint64 ms) {
    std::lock_guard lock(m_mutex);
    m_samples.append(ms);
    if (m_samples.size() > limit)
        m_samples.removeFirst();
}

std::optional<qint64> LatencyStats::percentile(double p) const {
    QList<qint64> sorted = samples();
    if (sorted.isEmpty())
        return std::nullopt;
    std::sort(sorted.begin(), sorted.end());
    const auto count = static_cast<double>(sorted.size());
    const double rank = std::clamp(std::ceil(p / 100.0 * count), 1.0, count);
    return sorted.at(static_cast<qsizetype>(rank) - 1);
}

QList<qint64> LatencyStats::samples() const {
    std::lock_guard lock(m_mutex);
    return m_samples;
}
