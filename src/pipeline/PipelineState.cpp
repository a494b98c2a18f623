#include "pipeline/PipelineState.h"

QString PipelineState::description() const {
    switch (kind) {
    case Kind::error:
        return QStringLiteral("error: ") + message;
    case Kind::idle:
        return QStringLiteral("idle");
    case Kind::recording:
        return QStringLiteral("recording");
    case Kind::thinking:
        return QStringLiteral("thinking");
    }
    return {};
}

QString displayName(PipelineMode mode) {
    switch (mode) {
    case PipelineMode::dictation:
        return QStringLiteral("Dictation");
    case PipelineMode::editSelection:
        return QStringLiteral("Edit in Place");
    case PipelineMode::developerPrompt:
        return QStringLiteral("Prompt Mode");
    }
    return {};
}
