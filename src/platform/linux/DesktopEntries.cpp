#include "platform/linux/DesktopEntries.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QSet>

namespace {

std::optional<DesktopEntries::Entry> readEntry(const QString &path, const QString &id) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return std::nullopt;
    DesktopEntries::Entry entry{id, {}, {}};
    bool inMainGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inMainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        if (!inMainGroup)
            continue;
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            continue;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (key == QLatin1String("Name"))
            entry.name = value;
        else if (key == QLatin1String("StartupWMClass"))
            entry.startupWMClass = value;
    }
    if (entry.name.isEmpty())
        return std::nullopt;
    return entry;
}

} // namespace

DesktopEntries::DesktopEntries(const QStringList &dataDirs) {
    QSet<QString> seen;
    for (const QString &dataDir : dataDirs) {
        const QString root = QDir(dataDir).filePath(QStringLiteral("applications"));
        QDirIterator files(root, {QStringLiteral("*.desktop")}, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            QString id = QDir(root).relativeFilePath(path);
            id.chop(int(QStringLiteral(".desktop").size()));
            id.replace(QLatin1Char('/'), QLatin1Char('-'));
            if (seen.contains(id))
                continue;
            seen.insert(id);
            if (auto entry = readEntry(path, id))
                m_entries.push_back(std::move(*entry));
        }
    }
}

QStringList DesktopEntries::standardDataDirs() {
    QString home = qEnvironmentVariable("XDG_DATA_HOME");
    if (home.isEmpty())
        home = QDir::home().filePath(QStringLiteral(".local/share"));
    QString system = qEnvironmentVariable("XDG_DATA_DIRS");
    if (system.isEmpty())
        system = QStringLiteral("/usr/local/share:/usr/share");
    return QStringList{home} + system.split(QLatin1Char(':'), Qt::SkipEmptyParts);
}

std::optional<DesktopEntries::Entry> DesktopEntries::match(const Window &window) const {
    QString declared = window.applicationID;
    if (declared.endsWith(QLatin1String(".desktop")))
        declared.chop(8);
    const auto find = [this](auto predicate) -> std::optional<Entry> {
        for (const Entry &entry : m_entries)
            if (predicate(entry))
                return entry;
        return std::nullopt;
    };
    if (!declared.isEmpty())
        if (auto entry = find([&](const Entry &e) { return e.id == declared; }))
            return entry;
    if (!window.wmClass.isEmpty())
        if (auto entry = find(
                [&](const Entry &e) { return e.startupWMClass.compare(window.wmClass, Qt::CaseInsensitive) == 0; }))
            return entry;
    for (const QString &name : {window.wmClass, window.wmInstance})
        if (!name.isEmpty())
            if (auto entry = find([&](const Entry &e) { return e.id.compare(name, Qt::CaseInsensitive) == 0; }))
                return entry;
    return std::nullopt;
}

FrontmostApp DesktopEntries::describe(const Window &window) const {
    FrontmostApp app;
    if (const auto entry = match(window)) {
        app.bundleID = entry->id;
        app.name = entry->name;
    } else if (!window.applicationID.isEmpty() || !window.wmClass.isEmpty()) {
        app.bundleID = window.applicationID.isEmpty() ? window.wmClass : window.applicationID;
        app.name = window.wmClass.isEmpty() ? window.applicationID : window.wmClass;
    }
    return app;
}
