#pragma once

#include "platform/ProcessTreeSource.h"

#include <QHash>
#include <QList>
#include <QString>

// Parsers for the text of the process tools ("ps" and "lsof") on desktops that have no /proc.
namespace ProcessListing {

// Lines of "ps -o pid=,ppid=,command=": process id, parent id, then the command line to the end of
// the line. Lines that do not start with two numbers are skipped.
QList<ProcessRow> parseProcessRows(const QString &text);

// The field output of "lsof -a -d cwd -F tn -p <ids>": "p<pid>" starts a process, "t<type>" and
// "n<name>" describe its working directory, kept only when its type is "DIR".
QHash<qint32, QString> parseWorkingDirectories(const QString &text);

} // namespace ProcessListing
