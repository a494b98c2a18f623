#pragma once

#include "core/EnumNames.h"

#include <QSet>
#include <QString>
#include <QStringList>
#include <optional>

struct Config;

// Decides, by word statistics alone, whether a formatter's rewrite of a dictation may be pasted.
// When it may not, the user gets their own words, lightly punctuated.
struct TranscriptGuard {
    enum class Verdict {
        accepted,
        skippedTooShort,
        rejectedEmpty,
        rejectedTooLong,
        rejectedContentLoss,
        rejectedInvention,
        rejectedRefusal,
        formatterFailed,
        formatterDisabled,
    };

    // Named as stored in history and printed ("rejectedTooLong").
    friend std::span<const NamedCase<Verdict>> namedCases(Verdict);

    struct Decision {
        QString text;
        Verdict verdict;
        bool operator==(const Decision &) const = default;
    };

    double minContentRetention = 0.6;
    double maxLengthRatio = 2.5;
    qint64 minWordsForLLM = 2;
    static constexpr double maxInventionRatio = 0.5;
    static constexpr qint64 maxInventedWords = 2;

    static TranscriptGuard fromConfig(const Config &config);

    Decision evaluate(const QString &raw, const QString &formatted) const;

    // The decision of a run whose formatter was skipped, disabled or failed.
    static Decision fallback(const QString &raw, Verdict verdict);

    // Lower-cased runs of letters and digits; every other character splits. Shared by all guards.
    static QStringList words(const QString &text);
    // Trimmed, first character upper-cased, a full stop added unless it already ends in a mark.
    static QString lightlyPunctuate(const QString &text);

    // Openings of a reply that talks to the user instead of being the text.
    static const QStringList &refusalMarkers();
    // Words whose loss or addition says nothing about the content.
    static const QSet<QString> &fillers();
};
