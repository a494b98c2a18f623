#include "core/Paths.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <mutex>

namespace Paths {

namespace {

constexpr QFileDevice::Permissions ownerFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions ownerDirectory =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;

// A save is written to "<name>.XXXXXX" and renamed over the file; one killed halfway leaves that
// temporary behind. Young ones may belong to a save still running in another of our processes.
void removeAbandonedSaves(const QString &directory) {
    static const QRegularExpression temporary(QStringLiteral("^.+\\.(json|jsonl|txt|wav)\\.[A-Za-z0-9]{6}$"));
    const QDateTime abandoned = QDateTime::currentDateTimeUtc().addSecs(-60);
    QDirIterator it(directory, QDir::Files | QDir::Hidden);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        if (temporary.match(info.fileName()).hasMatch() && info.lastModified().toUTC() < abandoned)
            QFile::remove(info.filePath());
    }
}

QString computeRoot() {
    const QString overridden = qEnvironmentVariable("QUORVANE_HOME");
    if (!overridden.isEmpty()) {
        const QString directory = QDir(overridden).absolutePath();
        prepare(directory, QString());
        return directory;
    }
    // Application Support on macOS, $XDG_DATA_HOME (~/.local/share) on Linux.
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        base = QDir::homePath();
    const QString directory = base + QStringLiteral("/Quorvane");
    prepare(directory, base + QStringLiteral("/Speakwell"));
    return directory;
}

} // namespace

QString root() {
    // Never destroyed: the log's thread outlives static destruction and still asks for it.
    static const QString *const value = new QString(computeRoot());
    return *value;
}

QString file(const QString &name) {
    return root() + QLatin1Char('/') + name;
}

void prepare(const QString &directory, const QString &legacyDirectory) {
    if (!legacyDirectory.isEmpty() && QFileInfo(legacyDirectory).isDir() && !QFileInfo::exists(directory)) {
        QDir().mkpath(QFileInfo(directory).absolutePath());
        QDir().rename(legacyDirectory, directory);
    }
    if (!makeProtectedDirectory(directory))
        return;
    const QDir dir(directory);
    for (const char *name : {"config.json", "history.jsonl", "vocabulary.txt", "quorvane.log", "speakwell.log"}) {
        const QString path = dir.filePath(QString::fromLatin1(name));
        if (QFileInfo::exists(path))
            protectFile(path);
    }
    removeAbandonedSaves(directory);
    const QString audio = dir.filePath(QStringLiteral("audio"));
    if (QFileInfo(audio).isDir()) {
        protectDirectory(audio);
        removeAbandonedSaves(audio);
        QDirIterator it(audio, QDir::Files | QDir::Hidden);
        while (it.hasNext())
            protectFile(it.next());
    }
}

void protectFile(const QString &path) {
    QFile::setPermissions(path, ownerFile);
}

void protectDirectory(const QString &path) {
    QFile::setPermissions(path, ownerDirectory);
}

bool makeProtectedDirectory(const QString &path) {
    if (!QDir().mkpath(path))
        return false;
    protectDirectory(path);
    return true;
}

} // namespace Paths
