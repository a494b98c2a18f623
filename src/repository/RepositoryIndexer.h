#pragma once

#include "repository/RepositoryContext.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QStringList>
#include <optional>

// The bounds that keep indexing a large repository quick.
struct RepositoryIndexLimits {
    int maxTrackedFiles = 5000;
    int maxSourceFiles = 160;
    qint64 maxBytesPerSourceFile = 131072;
    int maxVocabularyTerms = 320;
    int maxKeyFiles = 24;

    bool operator==(const RepositoryIndexLimits &) const = default;
};

// Builds a RepositoryContext from what Git tracks in a repository. Reads only tracked files, skips
// anything that looks like a secret, and never changes the repository.
class RepositoryIndexer {
public:
    explicit RepositoryIndexer(RepositoryIndexLimits limits = {}) : m_limits(limits) {}

    const RepositoryIndexLimits &limits() const { return m_limits; }

    // The nearest directory at or above `startingAt` that holds a ".git" directory or marker file.
    static std::optional<QString> findRepositoryRoot(const QString &startingAt);

    // Lists the tracked files itself (asynchronously) when `trackedFiles` is absent; the scan runs
    // on the shared thread pool. Throws QuorvaneError when `root` is not a readable directory.
    QCoro::Task<RepositoryContext> index(QString root, std::optional<QStringList> trackedFiles = std::nullopt) const;

    // The scan itself, blocking; for callers already off the main thread.
    RepositoryContext indexListed(const QString &root, const QStringList &trackedFiles) const;

    // "git ls-files" in `root`, at most `maxFiles` paths; empty when Git cannot run or fails.
    static QCoro::Task<QStringList> trackedFiles(QString root, int maxFiles);
    // The paths in NUL-separated "git ls-files -z" output, at most `maxFiles`.
    static QStringList trackedFilesFromListing(const QByteArray &output, int maxFiles);

    // The rules below are exposed for tests.
    static bool isExcluded(const QString &relativePath);
    // The canonical path of the file when it is a regular file that, with symbolic links resolved,
    // still lies under `canonicalRoot`.
    static std::optional<QString> containedRepositoryFile(const QString &relativePath, const QString &canonicalRoot);
    static bool isKeyFile(const QString &relativePath);
    static bool isUsefulTerm(const QString &term);
    static std::optional<QString> language(const QString &relativePath);
    static QStringList extractIdentifiers(const QString &text);
    // At most `maxBytes` from the start of the file as UTF-8; absent when unreadable or not UTF-8.
    static std::optional<QString> readPrefix(const QString &path, qint64 maxBytes);
    static std::optional<QString> branchName(const QString &root);

private:
    RepositoryIndexLimits m_limits;
};
