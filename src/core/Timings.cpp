#include "core/Timings.h"

#include <limits>

namespace {
qint64 saturatingAdd(qint64 a, qint64 b) {
    qint64 sum = 0;
    if (__builtin_add_overflow(a, b, &sum))
        return b > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    return sum;
}
} // namespace

QString Timings::summary() const {
    const qint64 total = saturatingAdd(saturatingAdd(saturatingAdd(asrMS, contextMS), formatMS), injectMS);
    return QStringLiteral("asr %1ms \u00B7 fmt %2ms \u00B7 inject %3ms \u00B7 total %4ms")
        .arg(asrMS)
        .arg(formatMS)
        .arg(injectMS)
        .arg(total);
}
