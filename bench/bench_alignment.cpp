// Alignment throughput of the benchmark's scoring on long clips: the whole table is R × H cells,
// so a long transcript is where the cost shows.
#include "benchmark/SpeechBenchmarkMetrics.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <cstdio>

namespace {

QString randomText(QRandomGenerator &random, int characters) {
    static const QString alphabet = QStringLiteral("abcdefghijklmnopqrstuvwxyz      ");
    QString text;
    text.reserve(characters);
    for (int i = 0; i < characters; ++i)
        text += alphabet.at(random.bounded(static_cast<int>(alphabet.size())));
    return text;
}

// A hypothesis that differs from the reference in about one character in twenty.
QString perturbed(QRandomGenerator &random, const QString &reference) {
    QString text = reference;
    for (qsizetype i = 0; i < text.size(); ++i)
        if (random.bounded(20) == 0)
            text[i] = QChar(u'a' + random.bounded(26));
    return text;
}

} // namespace

int main() {
    QRandomGenerator random(42);
    std::printf("%-12s %14s %12s %16s\n", "characters", "cells", "seconds", "cells/second");
    for (int length : {1000, 5000, 20000}) {
        const QString reference = randomText(random, length);
        const QString hypothesis = perturbed(random, reference);
        QElapsedTimer timer;
        timer.start();
        const auto result = SpeechBenchmarkMetrics::score(reference, hypothesis);
        const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        const double cells =
            static_cast<double>(result.referenceCharacters) * static_cast<double>(result.hypothesisCharacters) +
            static_cast<double>(result.referenceWords) * static_cast<double>(result.hypothesisWords);
        std::printf("%-12d %14.0f %12.3f %16.3g   (CER %.3f)\n", length, cells, seconds, cells / seconds,
                    result.characterErrorRate);
    }
    return 0;
}
