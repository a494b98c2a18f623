#pragma once

#include "core/Config.h"
#include "pipeline/PipelineState.h"

#include <functional>

class GlobalHotkey;
class Pipeline;

// Puts a settings change into effect: the pipeline takes it by reload or by preference update (both
// save config.json), each key watcher follows its mode's key, and the login item follows its switch.
class SettingsApplier {
public:
    using HotkeyLookup = std::function<GlobalHotkey *(PipelineMode)>;
    using LoginItemSwitch = std::function<void(bool enabled)>;

    SettingsApplier(Pipeline &pipeline, HotkeyLookup hotkeyFor, LoginItemSwitch setLaunchAtLogin);

    // Whether the change needs another speech engine, formatter or capture.
    static bool needsReload(const Config &before, const Config &after);

    void apply(const Config &updated);

private:
    Pipeline &m_pipeline;
    HotkeyLookup m_hotkeyFor;
    LoginItemSwitch m_setLaunchAtLogin;
};
