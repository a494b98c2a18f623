#pragma once

#include "repository/AgentHandoffLaunching.h"

#include <QStringList>
#include <optional>

// Finds an agent program in the three trusted folders only; the user's search path is never
// consulted, so a planted "claude" earlier in PATH cannot receive the prompt.
namespace AgentExecutableLocator {

QStringList candidates(AgentKind agent, const QString &homeDirectory);
// The first candidate that is an executable file.
std::optional<QString> locate(AgentKind agent, const QString &homeDirectory);

} // namespace AgentExecutableLocator
