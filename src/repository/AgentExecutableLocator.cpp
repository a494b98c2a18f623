#include "repository/AgentExecutableLocator.h"

#include <QDir>
#include <QFileInfo>

namespace AgentExecutableLocator {

QStringList candidates(AgentKind agent, const QString &homeDirectory) {
    const QString name = executableName(agent);
    return {QStringLiteral("/opt/homebrew/bin/") + name, QStringLiteral("/usr/local/bin/") + name,
            QDir(homeDirectory).filePath(QStringLiteral(".local/bin/") + name)};
}

std::optional<QString> locate(AgentKind agent, const QString &homeDirectory) {
    for (const QString &candidate : candidates(agent, homeDirectory)) {
        const QFileInfo info(candidate);
        if (info.isFile() && info.isExecutable())
            return candidate;
    }
    return std::nullopt;
}

} // namespace AgentExecutableLocator
