#include "repository/AgentHandoffLaunching.h"

#include "repository/AgentExecutableLocator.h"

#include <QDir>

QString executableName(AgentKind agent) {
    return agent == AgentKind::claude ? QStringLiteral("claude") : QStringLiteral("codex");
}

QString displayName(AgentKind agent) {
    return agent == AgentKind::claude ? QStringLiteral("Claude Code") : QStringLiteral("Codex");
}

std::optional<AgentKind> agentKind(PromptDestination destination) {
    switch (destination) {
    case PromptDestination::claude:
        return AgentKind::claude;
    case PromptDestination::codex:
        return AgentKind::codex;
    case PromptDestination::focusedApp:
        break;
    }
    return std::nullopt;
}

bool AgentHandoffLaunching::isAgentAvailable(AgentKind agent) const {
    return AgentExecutableLocator::locate(agent, QDir::homePath()).has_value();
}
