#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <optional>

// One delivered utterance as kept in the history.
struct Utterance {
    QString id;
    QDateTime timestamp;
    std::optional<QString> appBundleID;
    std::optional<QString> appName;
    QString rawTranscript;
    QString formattedText;
    QString shippedText;
    QString guardVerdict;
    QString engine;
    QString formatter;
    qint64 asrMS = 0;
    qint64 formatMS = 0;
    qint64 responseMS = 0;
    std::optional<QString> audioFile;

    bool operator==(const Utterance &) const = default;

    // Timestamps are ISO 8601 in UTC with milliseconds; absent optionals are left out.
    QJsonObject toJson() const;
    static std::optional<Utterance> fromJson(const QJsonObject &object);
};

struct RetentionLimits {
    qint64 maxHistoryEntries = 2000;
    qint64 maxHistoryBytes = 8388608;
    qint64 maxAudioFiles = 100;
    qint64 maxAudioBytes = 268435456;

    bool operator==(const RetentionLimits &) const = default;
};
