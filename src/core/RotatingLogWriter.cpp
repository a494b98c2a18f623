#include "core/RotatingLogWriter.h"

#include "core/Paths.h"

#include <QFile>
#include <QFileInfo>

RotatingLogWriter::RotatingLogWriter(QString path, qint64 maxBytes, int backupCount)
    : m_path(std::move(path)), m_maxBytes(maxBytes), m_backupCount(backupCount) {}

QString RotatingLogWriter::backupPath(int number) const {
    return m_path + QLatin1Char('.') + QString::number(number);
}

void RotatingLogWriter::rotateIfNeeded(qint64 adding) {
    const QFileInfo live(m_path);
    if (!live.exists() || live.size() == 0 || live.size() + adding <= m_maxBytes)
        return;
    if (m_backupCount <= 0) {
        QFile::remove(m_path);
        return;
    }
    QFile::remove(backupPath(m_backupCount));
    for (int n = m_backupCount - 1; n >= 1; --n) {
        if (QFileInfo::exists(backupPath(n)))
            QFile::rename(backupPath(n), backupPath(n + 1));
    }
    QFile::rename(m_path, backupPath(1));
}

void RotatingLogWriter::append(const QByteArray &bytes) {
    rotateIfNeeded(bytes.size());
    const bool created = !QFileInfo::exists(m_path);
    QFile file(m_path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        return;
    file.write(bytes);
    file.close();
    if (created)
        Paths::protectFile(m_path);
}
