#pragma once

#include "core/DescribedError.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

struct BenchmarkClip {
    QString id;
    // As written in the manifest, and resolved against the manifest's folder.
    QString audio;
    QString audioPath;
    QString reference;
    std::optional<QString> locale;

    bool operator==(const BenchmarkClip &) const = default;
};

// A dataset to score: clips with their reference texts, and where the recordings come from.
struct BenchmarkManifest {
    // Every problem found, one sentence each, naming the clip concerned.
    class Invalid : public DescribedError {
    public:
        explicit Invalid(const QStringList &problems) : DescribedError(problems.join(u'\n')), m_problems(problems) {}
        const QStringList &problems() const { return m_problems; }

    private:
        QStringList m_problems;
    };

    QString path;
    QString name;
    // Kept as given ("source", "license", "url", "notes") so results say what was measured.
    QJsonObject provenance;
    std::optional<QString> locale;
    QList<BenchmarkClip> clips;

    // Reads and checks the manifest, including that every clip's audio file exists. Throws Invalid.
    static BenchmarkManifest load(const QString &path);
};
