#pragma once

#include "core/Config.h"
#include "repository/RepositoryContext.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <optional>

enum class AgentKind { claude, codex };

// "claude" / "codex": the program name looked up in the trusted folders.
QString executableName(AgentKind agent);
// "Claude Code" / "Codex".
QString displayName(AgentKind agent);
// The agent a prompt destination hands off to; absent for the focused application.
std::optional<AgentKind> agentKind(PromptDestination destination);

// Hands a compiled prompt to a coding agent started in a terminal inside the repository.
class AgentHandoffLaunching {
public:
    virtual ~AgentHandoffLaunching() = default;
    // Returns once the prompt has been submitted; throws QuorvaneError (agentUnavailable or
    // agentHandoffFailed) otherwise. The prompt is never submitted after the agent asked the user
    // something or focus moved elsewhere.
    virtual QCoro::Task<void> handoff(QString prompt, AgentKind agent, RepositoryContext repository) = 0;
    // Whether a handoff to `agent` could start: its program is installed in a trusted folder of the
    // home the launcher looks in.
    virtual bool isAgentAvailable(AgentKind agent) const;
};
