#pragma once

#include <QString>

// Whether the agent's first screen is waiting for the user (folder trust, sign-in) rather than for
// a prompt.
namespace AgentStartupScreenClassifier {

enum class Status { ready, needsUser };

Status classify(const QString &text);

} // namespace AgentStartupScreenClassifier
