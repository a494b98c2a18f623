#pragma once

#include "repository/RepositoryContext.h"

#include <QString>

// The launch script a terminal runs: fail fast, enter the repository, record the process id in the
// marker, then become the agent (so the marker names the agent). The prompt never appears in it.
namespace AgentHandoffScriptBuilder {

// The value in single quotes, each "'" written as '\''; safe for any byte but NUL.
QString quote(const QString &value);
QString make(const QString &executablePath, const RepositoryContext &repository, const QString &markerPath);

} // namespace AgentHandoffScriptBuilder
