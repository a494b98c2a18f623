#pragma once

#include <QByteArray>
#include <QString>

// Appends to one file and keeps it under a byte limit by shifting it into numbered backups
// ("name.1" newest). File-system failures are swallowed: logging never fails its caller.
class RotatingLogWriter {
public:
    RotatingLogWriter(QString path, qint64 maxBytes, int backupCount);

    const QString &path() const { return m_path; }
    qint64 maxBytes() const { return m_maxBytes; }
    int backupCount() const { return m_backupCount; }

    void append(const QByteArray &bytes);
    QString backupPath(int number) const;

private:
    void rotateIfNeeded(qint64 adding);

    QString m_path;
    qint64 m_maxBytes;
    int m_backupCount;
};
