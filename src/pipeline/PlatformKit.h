#pragma once

#include "core/Config.h"
#include "formatting/TextFormatter.h"
#include "pipeline/EngineChoice.h"
#include "pipeline/PipelineState.h"
#include "platform/AudioCapturing.h"
#include "platform/CuePlayer.h"
#include "platform/DesktopPermissions.h"
#include "platform/GlobalHotkey.h"
#include "platform/TextInjection.h"
#include "repository/AgentHandoffLaunching.h"
#include "repository/RepositoryContextProviding.h"
#include "speech/AsrEngine.h"

#include <functional>
#include <memory>

class FocusedDocumentSource;
class ProcessTreeSource;

// The desktop services the pipeline and the shell talk to. Services are shared: a run that
// outlives a settings change, or an abandoned formatter call, keeps what it uses alive.
struct PlatformKit {
    // The key from the settings, and the mode it starts: some desktops bind modes, not keys.
    using HotkeyFactory = std::function<std::unique_ptr<GlobalHotkey>(PushToTalkKey, PipelineMode)>;
    using NativeAsrFactory = ::NativeAsrFactory;
    using NativeFormatterFactory = ::NativeFormatterFactory;

    // Builds one watcher per mode key.
    HotkeyFactory hotkey;
    std::shared_ptr<AudioCapturing> capture;
    std::shared_ptr<TextInjector> injector;
    // Null where the selection cannot be read.
    std::shared_ptr<SelectionEditing> selectionEditor;
    std::shared_ptr<FrontmostAppProvider> frontmostApp;
    // Null where no repository facts are provided.
    std::shared_ptr<RepositoryContextProviding> repositoryContext;
    // Null where prompts cannot be handed to a coding agent.
    std::shared_ptr<AgentHandoffLaunching> agentHandoff;
    std::shared_ptr<UserNotifier> notifier;
    // The sounds at the start and end of a recording.
    std::shared_ptr<CuePlayer> cues;
    // Null where the desktop has no per-application permissions.
    std::shared_ptr<DesktopPermissions> permissions;
    // The operating system's recogniser and language model; empty, or yielding null, where there
    // is none.
    NativeAsrFactory nativeAsrEngine;
    NativeFormatterFactory nativeFormatter;
    // How the user pastes by hand on this desktop, for notices that leave text on the clipboard.
    QString pasteShortcut = QStringLiteral("\u2318V");
    // Builds the capture the settings ask for: the user's recorder when captureCommand is set,
    // else the desktop's microphone. Called again when a reload changes captureCommand.
    std::function<std::shared_ptr<AudioCapturing>(const Config &)> makeCapture;
    // This desktop's own names for the applications the default style rules cover; consulted
    // when none of the user's rules matches.
    QList<AppRule> appRules;
    // How each mode key is named on this desktop.
    std::function<QString(PushToTalkKey)> keyDisplayName;
    // What this desktop session lacks for dictation, one line each with the next step.
    QStringList sessionGaps;
    // Where the desktop must allow the paste: which way is used and what the user does next. Empty
    // where pasting needs no setup.
    QString pasteSetup;
    // Where the desktop decides how the mode keys reach us: which way is used and what the user
    // does next. Empty where the keys need no setup.
    QString keySetup;

    // Every service its fallback: the starting point of each platform's kit.
    static PlatformKit fallbacks();
    // makeCapture for a desktop whose own microphone is `microphone` (null where there is none).
    static std::function<std::shared_ptr<AudioCapturing>(const Config &)>
    captureFactory(std::shared_ptr<AudioCapturing> microphone);
    // Sets repositoryContext to this desktop's provider. Called last, so that it asks the
    // frontmost-app service the kit ends up with.
    void wireRepositoryContext(std::shared_ptr<ProcessTreeSource> processes,
                               std::shared_ptr<FocusedDocumentSource> documents);
};
