#include "app/SettingsApplier.h"

#include "core/Async.h"
#include "core/DescribedError.h"
#include "core/Log.h"
#include "pipeline/Pipeline.h"
#include "platform/GlobalHotkey.h"

SettingsApplier::SettingsApplier(Pipeline &pipeline, HotkeyLookup hotkeyFor, LoginItemSwitch setLaunchAtLogin)
    : m_pipeline(pipeline), m_hotkeyFor(std::move(hotkeyFor)), m_setLaunchAtLogin(std::move(setLaunchAtLogin)) {}

bool SettingsApplier::needsReload(const Config &before, const Config &after) {
    // Everything else is read afresh by each run, so the warm engine and model can stay.
    return before.asr != after.asr || before.formatter != after.formatter || before.ollamaModel != after.ollamaModel ||
           before.ollamaEndpoint != after.ollamaEndpoint || before.whisperEndpoint != after.whisperEndpoint ||
           before.locale != after.locale || before.captureCommand != after.captureCommand;
}

void SettingsApplier::apply(const Config &updated) {
    const Config before = m_pipeline.config();
    if (before == updated)
        return;

    const std::pair<PipelineMode, PushToTalkKey> keys[] = {
        {PipelineMode::dictation, updated.pushToTalkKey},
        {PipelineMode::editSelection, updated.editKey},
        {PipelineMode::developerPrompt, updated.promptKey},
    };
    const PushToTalkKey oldKeys[] = {before.pushToTalkKey, before.editKey, before.promptKey};
    for (int i = 0; i < 3; ++i) {
        if (keys[i].second == oldKeys[i])
            continue;
        if (GlobalHotkey *hotkey = m_hotkeyFor ? m_hotkeyFor(keys[i].first) : nullptr)
            hotkey->updateKey(keys[i].second);
    }
    if (before.launchAtLogin != updated.launchAtLogin && m_setLaunchAtLogin)
        m_setLaunchAtLogin(updated.launchAtLogin);

    const auto onError = [](std::exception_ptr error) {
        Log::error(QStringLiteral("Could not apply the new settings: ") + describeError(error));
    };
    if (needsReload(before, updated))
        detach(m_pipeline.reload(updated), onError);
    else
        detach(m_pipeline.updatePreferences(updated), onError);
}
