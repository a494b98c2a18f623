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
        git({QStringLiteral("init"), QStringLiteral("-q"), QStringLiteral("-b"), QStringLiteral("main")});
}

bool TempGitRepository::write(const QString &path, const QByteArray &contents) const {
    const QString full = m_root + QLatin1Char('/') + path;
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(contents) == contents.size();
}

QString TempGitRepository::git(const QStringList &arguments, const QString &directory) const {
    QProcess process;
    process.setWorkingDirectory(directory.isEmpty() ? m_root : directory);
    // Independent of the machine's Git configuration.
    QStringList full{QStringLiteral("-c"), QStringLiteral("user.name=Test"),
                     QStringLiteral("-c"), QStringLiteral("user.email=test@example.invalid"),
                     QStringLiteral("-c"), QStringLiteral("commit.gpgsign=false"),
                     QStringLiteral("-c"), QStringLiteral("core.hooksPath=/dev/null")};
    full << arguments;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("GIT_CONFIG_NOSYSTEM"), QStringLiteral("1"));
    environment.insert(QStringLiteral("GIT_CONFIG_GLOBAL"), QStringLiteral("/dev/null"));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral("/usr/bin/git"), full);
    if (!process.waitForFinished(60'000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        QTest::qFail(
            qPrintable(QStringLiteral("git %1 failed: %2")
                           .arg(arguments.join(QLatin1Char(' ')), QString::fromUtf8(process.readAllStandardError()))),
            __FILE__, __LINE__);
        return {};
    }
    return QString::fromUtf8(process.readAllStandardOutput());
}

void TempGitRepository::commitAll(const QString &message) const {
    git({QStringLiteral("add"), QStringLiteral("-A"), QStringLiteral("-f"), QStringLiteral(".")});
    git({QStringLiteral("commit"), QStringLiteral("-q"), QStringLiteral("--allow-empty"), QStringLiteral("-m"),
         message});
}
