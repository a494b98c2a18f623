#pragma once

#include <QString>
#include <QtGlobal>

// Where one run's time went, in whole milliseconds.
struct Timings {
    qint64 recordingMS = 0;
    qint64 asrMS = 0;
    qint64 contextMS = 0;
    qint64 formatMS = 0;
    qint64 injectMS = 0;

    bool operator==(const Timings &) const = default;
    // "asr 120ms · fmt 800ms · inject 40ms · total 990ms" (the total leaves out recording).
    QString summary() const;
};
