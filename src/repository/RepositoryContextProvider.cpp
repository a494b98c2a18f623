#include "repository/RepositoryContextProvider.h"

#include "core/Log.h"
#include "core/OffThread.h"
#include "core/QuorvaneError.h"
#include "repository/RepositoryCandidateSelector.h"

#include <QSet>

RepositoryContextProvider::RepositoryContextProvider(std::shared_ptr<ProcessTreeSource> processes,
                                                     std::shared_ptr<FocusedDocumentSource> documents,
                                                     FrontmostProcessID frontmostProcessID,
                                                     RepositoryIndexLimits limits)
    : m_processes(std::move(processes)), m_documents(std::move(documents)),
      m_frontmostProcessID(std::move(frontmostProcessID)), m_indexer(limits) {}

std::optional<RepositoryContext>
RepositoryContextProvider::cachedContext(const std::optional<QString> &appBundleID,
                                         const std::optional<QString> &pinnedRepositoryPath) {
    std::optional<QString> root;
    if (pinnedRepositoryPath)
        root = RepositoryIndexer::findRepositoryRoot(*pinnedRepositoryPath);
    else if (appBundleID && m_caches->rootByBundleID.contains(*appBundleID))
        root = m_caches->rootByBundleID.value(*appBundleID);
    if (!root || !m_caches->contextsByRoot.contains(*root))
        return std::nullopt;
    return m_caches->contextsByRoot.value(*root);
}

QCoro::Task<std::optional<RepositoryContext>>
RepositoryContextProvider::refreshContext(std::optional<QString> appBundleID,
                                          std::optional<QString> pinnedRepositoryPath) {
    // Everything the task needs is copied before its first suspension.
    const auto caches = m_caches;
    const auto processes = m_processes;
    const RepositoryIndexer indexer = m_indexer;

    std::optional<QString> root;
    if (pinnedRepositoryPath) {
        root = RepositoryIndexer::findRepositoryRoot(*pinnedRepositoryPath);
        if (!root)
            throw QuorvaneError::repositoryUnavailable(QStringLiteral("the selected folder is not a Git repository"));
    } else {
        // Accessibility wants the main thread, so the document is asked for before anything suspends.
        const auto frontmost = m_frontmostProcessID ? m_frontmostProcessID() : std::nullopt;
        if (frontmost && m_documents) {
            if (const auto document = m_documents->focusedDocumentPath(*frontmost))
                root = RepositoryIndexer::findRepositoryRoot(*document);
        }
        if (!root && frontmost && processes) {
            if (const auto directory = co_await detectFromProcessTree(processes, *frontmost))
                root = RepositoryIndexer::findRepositoryRoot(*directory);
        }
    }
    if (!root)
        co_return std::nullopt;

    if (appBundleID)
        caches->rootByBundleID.insert(*appBundleID, *root);
    if (caches->contextsByRoot.contains(*root))
        co_return caches->contextsByRoot.value(*root);
    try {
        const RepositoryContext context = co_await indexer.index(*root);
        caches->contextsByRoot.insert(*root, context);
        co_return context;
    } catch (const std::exception &error) {
        Log::warn(QStringLiteral("Repository index failed for %1: %2").arg(*root, QString::fromUtf8(error.what())));
    }
    co_return std::nullopt;
}

QCoro::Task<std::optional<QString>>
RepositoryContextProvider::detectFromProcessTree(std::shared_ptr<ProcessTreeSource> processes,
                                                 qint32 frontmostProcessID) {
    const QList<ProcessRow> rows = co_await processes->processRows();

    // Breadth-first from the frontmost process; the visited set makes a corrupt table with a
    // parent cycle finite.
    QHash<qint32, QList<qint32>> children;
    for (const ProcessRow &row : rows) {
        if (row.processID != row.parentProcessID)
            children[row.parentProcessID].append(row.processID);
    }
    QList<qint32> descendants{frontmostProcessID};
    QSet<qint32> seen{frontmostProcessID};
    for (qsizetype i = 0; i < descendants.size(); ++i) {
        for (qint32 child : children.value(descendants.at(i))) {
            if (!seen.contains(child)) {
                seen.insert(child);
                descendants.append(child);
            }
        }
    }

    const QHash<qint32, QString> directories = co_await processes->workingDirectories(descendants);
    QMap<qint32, ProcessWorkingDirectory> table;
    for (const ProcessRow &row : rows)
        table.insert(row.processID,
                     {row.processID, row.parentProcessID, row.command, directories.value(row.processID)});
    // Choosing stats every candidate directory: off the calling thread.
    co_return co_await runOffThread<std::optional<QString>>([frontmostProcessID, table = std::move(table)] {
        return RepositoryCandidateSelector::select(frontmostProcessID, table);
    });
}
