#include "core/Paths.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <mutex>

namespace Paths {

namespace {

constexpr QFileDevice::Permissions ownerFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions ownerDirectory =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;

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
    const QString audio = dir.filePath(QStringLiteral("audio"));
    if (QFileInfo(audio).isDir()) {
        protectDirectory(audio);
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
