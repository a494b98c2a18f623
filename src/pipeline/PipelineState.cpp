#include "pipeline/PipelineState.h"

using Kind = PipelineState::Kind;

std::span<const NamedCase<Kind>> namedCases(Kind) {
    static constexpr NamedCase<Kind> cases[] = {
        {Kind::error, "error"},
        {Kind::idle, "idle"},
        {Kind::recording, "recording"},
        {Kind::thinking, "thinking"},
    };
    return cases;
}

QString PipelineState::description() const {
    return kind == Kind::error ? toName(kind) + QStringLiteral(": ") + message : toName(kind);
}

std::span<const NamedCase<PipelineMode>> namedCases(PipelineMode) {
    static constexpr NamedCase<PipelineMode> cases[] = {
        {PipelineMode::dictation, "dictation", "Dictation"},
        {PipelineMode::editSelection, "editSelection", "Edit in Place"},
        {PipelineMode::developerPrompt, "developerPrompt", "Prompt Mode"},
    };
    return cases;
}
