#include "repository/AgentStartupScreenClassifier.h"

#include "core/Text.h"

namespace AgentStartupScreenClassifier {

Status classify(const QString &text) {
    static const char *const phrases[] = {
        "do you trust", "trust this folder", "trust this directory",    "trust this project",       "sign in",
        "log in",       "login required",    "authentication required", "authenticate to continue",
    };
    const QString lowered = Text::lower(text);
    for (const char *phrase : phrases) {
        if (lowered.contains(QLatin1String(phrase)))
            return Status::needsUser;
    }
    return Status::ready;
}

} // namespace AgentStartupScreenClassifier
