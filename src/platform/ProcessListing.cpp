#include "platform/ProcessListing.h"

#include <QStringView>
#include <optional>

namespace ProcessListing {

namespace {

// Reads one run of digits after leading blanks; returns false when there is none.
bool readNumber(QStringView line, qsizetype &position, qint32 &value) {
    while (position < line.size() && (line[position] == QLatin1Char(' ') || line[position] == QLatin1Char('\t')))
        ++position;
    const qsizetype start = position;
    while (position < line.size() && line[position].isDigit() && line[position].unicode() < 128)
        ++position;
    if (position == start)
        return false;
    bool ok = false;
    value = line.mid(start, position - start).toInt(&ok);
    return ok;
}

} // namespace

QList<ProcessRow> parseProcessRows(const QString &text) {
    QList<ProcessRow> rows;
    for (QStringView line : QStringView(text).split(QLatin1Char('\n'))) {
        qsizetype position = 0;
        ProcessRow row;
        if (!readNumber(line, position, row.processID) || !readNumber(line, position, row.parentProcessID))
            continue;
        // Exactly the separator goes: a command line may itself begin with blanks.
        while (position < line.size() && line[position] == QLatin1Char(' '))
            ++position;
        row.command = line.mid(position).toString();
        if (row.command.endsWith(QLatin1Char('\r')))
            row.command.chop(1);
        rows.append(row);
    }
    return rows;
}

QHash<qint32, QString> parseWorkingDirectories(const QString &text) {
    QHash<qint32, QString> directories;
    std::optional<qint32> current;
    QStringView type;
    for (QStringView line : QStringView(text).split(QLatin1Char('\n'))) {
        if (line.isEmpty())
            continue;
        const QChar field = line.front();
        const QStringView value = line.mid(1);
        if (field == QLatin1Char('p')) {
            bool ok = false;
            const qint32 id = value.toInt(&ok);
            current = ok ? std::optional<qint32>(id) : std::nullopt;
            type = {};
        } else if (field == QLatin1Char('f')) {
            type = {};
        } else if (field == QLatin1Char('t')) {
            type = value;
        } else if (field == QLatin1Char('n') && current) {
            // An unreadable directory comes back with type "unknown" and an error text as its name.
            if (type == QLatin1String("DIR") && value.startsWith(QLatin1Char('/')) && !directories.contains(*current))
                directories.insert(*current, value.toString());
        }
    }
    return directories;
}

} // namespace ProcessListing
