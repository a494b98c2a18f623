#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

// A real Git repository in a temporary folder, driven by the real "/usr/bin/git". Commands are run
// blocking: this is for tests and benchmarks only.
class TempGitRepository {
public:
    // The repository lives in `<temporary folder>/<name>` so its last path component is known.
    explicit TempGitRepository(const QString &name = QStringLiteral("project"));

    bool isValid() const { return m_valid; }
    const QString &root() const { return m_root; }
    // The temporary folder that holds the repository; free room for worktrees and outside files.
    QString scratch() const { return m_scratch->path(); }

    // Writes `contents` to the repository-relative `path`, creating folders on the way.
    bool write(const QString &path, const QByteArray &contents) const;
    // The same for any absolute `path`, optionally made executable by its owner.
    static bool writeFile(const QString &path, const QByteArray &contents, bool executable = false);
    // Runs git with `arguments` in `directory` (the root when empty); returns its standard output,
    // or fails the running test when Git fails.
    QString git(const QStringList &arguments, const QString &directory = {}) const;
    // Adds every file (forcing ignored ones) and commits.
    void commitAll(const QString &message = QStringLiteral("change")) const;

private:
    std::unique_ptr<QTemporaryDir> m_scratch;
    QString m_root;
    bool m_valid = false;
};
