#include "pipeline/PipelineState.h"

namespace {

using Kind = PipelineState::Kind;

constexpr NamedCase<Kind> kindNames[] = {
    {Kind::error, "error"},
    {Kind::idle, "idle"},
    {Kind::recording, "recording"},
    {Kind::thinking, "thinking"},
};

} // namespace

std::span<const NamedCase<Kind>> namedCases(Kind) {
    return kindNames;
}

QString PipelineState::description() const {
    return kind == Kind::error ? toName(kind) + QStringLiteral(": ") + message : toName(kind);
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
