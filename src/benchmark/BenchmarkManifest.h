#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <exception>
#include <optional>
#include <string>

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
    class Invalid : public std::exception {
    public:
        explicit Invalid(const QStringList &problems)
            : m_problems(problems), m_what(problems.join(u'\n').toStdString()) {}
        const QStringList &problems() const { return m_problems; }
        const char *what() const noexcept override { return m_what.c_str(); }

    private:
        QStringList m_problems;
        std::string m_what;
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
