#include "repository/AgentHandoffScriptBuilder.h"

namespace AgentHandoffScriptBuilder {

QString quote(const QString &value) {
    QString escaped = value;
    escaped.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + escaped + QLatin1Char('\'');
}

QString make(const QString &executablePath, const RepositoryContext &repository, const QString &markerPath) {
    return QStringLiteral("#!/bin/zsh\nset -eu\ncd -- ") + quote(repository.rootPath) +
           QStringLiteral("\n/bin/echo \"$$\" > ") + quote(markerPath) + QStringLiteral("\nexec ") +
           quote(executablePath);
}

} // namespace AgentHandoffScriptBuilder
