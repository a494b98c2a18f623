#pragma once

#include "repository/RepositoryContext.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <optional>

// Which repository the user is talking about, for the application in front.
class RepositoryContextProviding {
public:
    virtual ~RepositoryContextProviding() = default;
    // From the caches only; never blocks.
    virtual std::optional<RepositoryContext> cachedContext(const std::optional<QString> &appBundleID,
                                                           const std::optional<QString> &pinnedRepositoryPath) = 0;
    // Detects the repository and indexes it, updating the caches. Throws QuorvaneError when a pinned
    // folder is not (or no longer) inside a Git repository.
    virtual QCoro::Task<std::optional<RepositoryContext>>
    refreshContext(std::optional<QString> appBundleID, std::optional<QString> pinnedRepositoryPath) = 0;
};

// For platforms where no context is provided.
class UnsupportedRepositoryContextProvider final : public RepositoryContextProviding {
public:
    std::optional<RepositoryContext> cachedContext(const std::optional<QString> &,
                                                   const std::optional<QString> &) override {
        return std::nullopt;
    }
    QCoro::Task<std::optional<RepositoryContext>> refreshContext(std::optional<QString>,
                                                                 std::optional<QString>) override {
        co_return std::nullopt;
    }
};
