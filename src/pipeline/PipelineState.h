#pragma once

#include "core/EnumNames.h"

#include <QString>
#include <cstddef>

// What the pipeline is doing; the shell draws the tray icon and the overlay from it.
struct PipelineState {
    enum class Kind { error, idle, recording, thinking };
    friend std::span<const NamedCase<Kind>> namedCases(Kind);

    Kind kind = Kind::idle;
    // The message shown; only an error carries one.
    QString message;

    static PipelineState idle() { return {Kind::idle, {}}; }
    static PipelineState recording() { return {Kind::recording, {}}; }
    static PipelineState thinking() { return {Kind::thinking, {}}; }
    static PipelineState error(const QString &message) { return {Kind::error, message}; }

    bool operator==(const PipelineState &) const = default;
    // "idle", "recording", "thinking", or "error: <message>".
    QString description() const;
};

// The three push-to-talk keys' modes.
enum class PipelineMode { dictation, editSelection, developerPrompt };
inline constexpr PipelineMode allPipelineModes[] = {PipelineMode::dictation, PipelineMode::editSelection,
                                                    PipelineMode::developerPrompt};
// The mode as an index into per-mode arrays of size std::size(allPipelineModes).
constexpr std::size_t modeIndex(PipelineMode mode) {
    return static_cast<std::size_t>(mode);
}

// Shown as "Dictation", "Edit in Place", "Prompt Mode".
std::span<const NamedCase<PipelineMode>> namedCases(PipelineMode);
