#pragma once

#include "platform/FocusedDocumentSource.h"
#include "platform/ProcessTreeSource.h"
#include "repository/RepositoryContextProviding.h"
#include "repository/RepositoryIndexer.h"

#include <QHash>
#include <QMap>
#include <functional>
#include <memory>

// Finds the repository for the frontmost application (pinned folder, then the focused document,
// then the processes under the application) and caches its facts per root and the root per
// application. Lives on the main thread: the caches and the focused-document query are touched
// only there, while listing processes and indexing run off it.
class RepositoryContextProvider final : public RepositoryContextProviding {
public:
    // Asked on the calling thread when a refresh starts; absent when nothing is in front.
    using FrontmostProcessID = std::function<std::optional<qint32>()>;

    RepositoryContextProvider(std::shared_ptr<ProcessTreeSource> processes,
                              std::shared_ptr<FocusedDocumentSource> documents, FrontmostProcessID frontmostProcessID,
                              RepositoryIndexLimits limits = {});

    std::optional<RepositoryContext> cachedContext(const std::optional<QString> &appBundleID,
                                                   const std::optional<QString> &pinnedRepositoryPath) override;
    QCoro::Task<std::optional<RepositoryContext>> refreshContext(std::optional<QString> appBundleID,
                                                                 std::optional<QString> pinnedRepositoryPath) override;

    // The working directory of the best process under `frontmostProcessID`; only the
    // application's descendants have their directories looked up.
    static QCoro::Task<std::optional<QString>> detectFromProcessTree(std::shared_ptr<ProcessTreeSource> processes,
                                                                     qint32 frontmostProcessID);

private:
    struct Caches {
        QHash<QString, RepositoryContext> contextsByRoot;
        QHash<QString, QString> rootByBundleID;
    };

    // Shared with running refreshes so that a refresh finishing after the provider is gone is harmless.
    std::shared_ptr<Caches> m_caches = std::make_shared<Caches>();
    std::shared_ptr<ProcessTreeSource> m_processes;
    std::shared_ptr<FocusedDocumentSource> m_documents;
    FrontmostProcessID m_frontmostProcessID;
    RepositoryIndexer m_indexer;
};
