#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

// Scoring of speech-recognition output against reference texts: one normalisation for both sides,
// word- and character-level edit alignments, and micro-averaged totals.
namespace SpeechBenchmarkMetrics {

// The rule `normalize` implements, as shown to users of the benchmark.
inline const QString normalizationRule = QStringLiteral(
    "Unicode width and diacritic folding; lowercase; letters, digits, and intra-word apostrophes retained; "
    "punctuation and whitespace collapsed; digits are not rewritten; WER is micro-averaged.");

struct EditCounts {
    qint64 substitutions = 0;
    qint64 insertions = 0;
    qint64 deletions = 0;

    qint64 total() const { return substitutions + insertions + deletions; }
    bool operator==(const EditCounts &) const = default;
    QJsonObject toJson() const;
    static std::optional<EditCounts> fromJson(const QJsonObject &object);
};

struct Score {
    QString normalizedReference;
    QString normalizedHypothesis;
    qint64 referenceWords = 0;
    qint64 hypothesisWords = 0;
    EditCounts wordEdits;
    double wordErrorRate = 0.0;
    qint64 referenceCharacters = 0;
    qint64 hypothesisCharacters = 0;
    EditCounts characterEdits;
    double characterErrorRate = 0.0;

    bool operator==(const Score &) const = default;
    QJsonObject toJson() const;
    static std::optional<Score> fromJson(const QJsonObject &object);
};

QString normalize(const QString &text);
// Counts of a minimum-cost alignment; equal costs prefer substitution, then deletion, then insertion.
EditCounts editCounts(const QStringList &reference, const QStringList &hypothesis);
Score score(const QString &reference, const QString &hypothesis);
// Micro-averaged: summed edits over summed reference counts, so long clips weigh more.
Score aggregate(const QList<Score> &scores);

} // namespace SpeechBenchmarkMetrics
