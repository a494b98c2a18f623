#include "platform/linux/WindowTitleDocument.h"

#include <QDir>
#include <QRegularExpression>

namespace WindowTitleDocument {

namespace {

std::optional<QString> absolute(QString path, const QString &home) {
    path = path.trimmed();
    if (path == QLatin1String("~") || path.startsWith(QLatin1String("~/")))
        path = home + path.mid(1);
    if (!path.startsWith(QLatin1Char('/')))
        return std::nullopt;
    return QDir::cleanPath(path);
}

} // namespace

std::optional<QString> path(const QString &title, const QString &homeDirectory) {
    // "name [modified] (folder) - Editor": the file's name, then its folder in parentheses.
    static const QRegularExpression nameInFolder(
        QStringLiteral(R"(^\*?(.+?)(?: [-+=]{1,2})? \(([~/][^()]*)\) - (?:gedit|pluma|xed|g?vim\d*|nvim)$)"),
        QRegularExpression::CaseInsensitiveOption);
    // "path - workspace - Visual Studio Code"; Code separates with " - " here, " — " on macOS.
    static const QRegularExpression codeWithPath(
        QStringLiteral(R"(^[●*]?\s*([~/].*?) (?:-|—) .* (?:-|—) (?:Visual Studio Code|VSCodium|Code - OSS)$)"));
    // "user@host: folder", as shells set it.
    static const QRegularExpression shellPrompt(QStringLiteral(R"(^[\w.-]+@[\w.-]+: ?([~/].*)$)"));

    if (const auto match = nameInFolder.match(title); match.hasMatch()) {
        const QString file = match.captured(1);
        if (file.contains(QLatin1Char('/')))
            return absolute(file, homeDirectory);
        return absolute(match.captured(2) + QLatin1Char('/') + file, homeDirectory);
    }
    if (const auto match = codeWithPath.match(title); match.hasMatch())
        return absolute(match.captured(1), homeDirectory);
    if (const auto match = shellPrompt.match(title); match.hasMatch())
        return absolute(match.captured(1), homeDirectory);
    return std::nullopt;
}

} // namespace WindowTitleDocument
