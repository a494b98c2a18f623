#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

// Runs the real quorvane executable while the calling thread's event loop keeps serving any fake
// servers the test started.
struct QuorvaneRun {
    // -1 when the process crashed or had to be killed after the time limit.
    int exitCode = -1;
    QString out;
    QString err;
};

// `home` becomes QUORVANE_HOME; `environment` entries are added (an empty value removes the
// variable).
QuorvaneRun runQuorvane(const QString &home, const QStringList &arguments,
                        const QHash<QString, QString> &environment = {}, int timeoutMs = 30000);

// Test files: a tone of `seconds` at `rate` written with the app's own encoder, and plain bytes.
void writeToneWav(const QString &path, double seconds, double rate);
void writeFileBytes(const QString &path, const QByteArray &bytes);
QByteArray readFileBytes(const QString &path);
