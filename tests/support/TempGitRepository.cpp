#include "TempGitRepository.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

TempGitRepository::TempGitRepository(const QString &name) : m_scratch(std::make_unique<QTemporaryDir>()) {
    // Canonical, so that comparisons with resolved paths hold where /tmp is itself a link.
    m_root = QFileInfo(m_scratch->path()).canonicalFilePath() + QLatin1Char('/') + name;
    m_valid = m_scratch->isValid() && QDir().mkpath(m_root);
    if (m_valid)
        git({"init", "-q", "-b", "main"});
}

bool TempGitRepository::write(const QString &path, const QByteArray &contents) const {
    return writeFile(m_root + QLatin1Char('/') + path, contents);
}

bool TempGitRepository::writeFile(const QString &path, const QByteArray &contents, bool executable) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(contents) == contents.size() &&
           (!executable || file.setPermissions(file.permissions() | QFileDevice::ExeOwner));
}

QString TempGitRepository::git(const QStringList &arguments, const QString &directory) const {
    QProcess process;
    process.setWorkingDirectory(directory.isEmpty() ? m_root : directory);
    // Independent of the machine's Git configuration.
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("GIT_CONFIG_NOSYSTEM", "1");
    environment.insert("GIT_CONFIG_GLOBAL", "/dev/null");
    process.setProcessEnvironment(environment);
    process.start("/usr/bin/git", QStringList{"-c", "user.name=Test", "-c", "user.email=test@example.invalid", "-c",
                                              "commit.gpgsign=false", "-c", "core.hooksPath=/dev/null"} +
                                      arguments);
    if (!process.waitForFinished(60'000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        const QString error = QString::fromUtf8(process.readAllStandardError());
        QTest::qFail(qPrintable("git " + arguments.join(' ') + " failed: " + error), __FILE__, __LINE__);
        return {};
    }
    return QString::fromUtf8(process.readAllStandardOutput());
}

void TempGitRepository::commitAll(const QString &message) const {
    git({"add", "-A", "-f", "."});
    git({"commit", "-q", "--allow-empty", "-m", message});
}
