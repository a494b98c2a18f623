#include "repository/RepositoryContext.h"

#include <QJsonArray>

QString RepositoryContext::promptContext() const {
    QStringList lines{QStringLiteral("Repository: ") + name};
    if (branch && !branch->isEmpty())
        lines << QStringLiteral("Branch: ") + *branch;
    if (!languages.isEmpty())
        lines << QStringLiteral("Languages: ") + languages.join(QStringLiteral(", "));
    if (!keyFiles.isEmpty())
        lines << QStringLiteral("Key files: ") + keyFiles.join(QStringLiteral(", "));
    return lines.join(QLatin1Char('\n'));
}

QJsonObject RepositoryContext::toJson() const {
    QJsonObject object{
        {QStringLiteral("rootPath"), rootPath},
        {QStringLiteral("name"), name},
        {QStringLiteral("languages"), QJsonArray::fromStringList(languages)},
        {QStringLiteral("keyFiles"), QJsonArray::fromStringList(keyFiles)},
        {QStringLiteral("vocabulary"), QJsonArray::fromStringList(vocabulary)},
    };
    if (branch)
        object.insert(QStringLiteral("branch"), *branch);
    return object;
}

namespace {

std::optional<QStringList> stringList(const QJsonValue &value) {
    if (!value.isArray())
        return std::nullopt;
    QStringList list;
    for (const QJsonValue &item : value.toArray()) {
        if (!item.isString())
            return std::nullopt;
        list << item.toString();
    }
    return list;
}

} // namespace

std::optional<RepositoryContext> RepositoryContext::fromJson(const QJsonObject &object) {
    const QJsonValue rootPath = object.value(QStringLiteral("rootPath"));
    const QJsonValue name = object.value(QStringLiteral("name"));
    const QJsonValue branch = object.value(QStringLiteral("branch"));
    const auto languages = stringList(object.value(QStringLiteral("languages")));
    const auto keyFiles = stringList(object.value(QStringLiteral("keyFiles")));
    const auto vocabulary = stringList(object.value(QStringLiteral("vocabulary")));
    if (!rootPath.isString() || !name.isString() || !languages || !keyFiles || !vocabulary)
        return std::nullopt;
    if (!branch.isUndefined() && !branch.isNull() && !branch.isString())
        return std::nullopt;
    RepositoryContext context;
    context.rootPath = rootPath.toString();
    context.name = name.toString();
    if (branch.isString())
        context.branch = branch.toString();
    context.languages = *languages;
    context.keyFiles = *keyFiles;
    context.vocabulary = *vocabulary;
    return context;
}
