#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <optional>

// Trusted facts about one Git repository, attached to Prompt Mode requests.
struct RepositoryContext {
    QString rootPath;
    QString name;
    std::optional<QString> branch;
    QStringList languages;
    QStringList keyFiles;
    QStringList vocabulary;

    bool operator==(const RepositoryContext &) const = default;

    // The fact list the prompt compiler shows the model and its guard measures the reply against.
    // The vocabulary is not part of it: it joins the protected vocabulary instead.
    QString promptContext() const;

    QJsonObject toJson() const;
    static std::optional<RepositoryContext> fromJson(const QJsonObject &object);
};
