#include "pipeline/PlatformKit.h"

#include "platform/ProcessAudioCapture.h"
#include "repository/RepositoryContextProvider.h"

PlatformKit PlatformKit::fallbacks() {
    PlatformKit kit;
    kit.hotkey = [](PushToTalkKey, PipelineMode) { return std::make_unique<UnsupportedHotkey>(); };
    kit.makeCapture = captureFactory(nullptr);
    kit.capture = std::make_shared<UnsupportedCapture>();
    kit.injector = std::make_shared<UnsupportedTextInjector>();
    kit.frontmostApp = std::make_shared<UnknownFrontmostApp>();
    kit.notifier = std::make_shared<ConsoleNotifier>();
    kit.cues = std::make_shared<SilentCuePlayer>();
    kit.keyDisplayName = [](PushToTalkKey key) { return displayName(key); };
    return kit;
}

std::function<std::shared_ptr<AudioCapturing>(const Config &)>
PlatformKit::captureFactory(std::shared_ptr<AudioCapturing> microphone) {
    // The microphone is made once and kept warm; recorders are cheap and follow the setting.
    return [microphone](const Config &config) -> std::shared_ptr<AudioCapturing> {
        if (config.captureCommand && !config.captureCommand->isEmpty())
            return std::make_shared<ProcessAudioCapture>(*config.captureCommand);
        if (microphone)
            return microphone;
        return std::make_shared<UnsupportedCapture>();
    };
}

void PlatformKit::wireRepositoryContext(std::shared_ptr<ProcessTreeSource> processes,
                                        std::shared_ptr<FocusedDocumentSource> documents) {
    // Held weakly: the kit, not the repository provider, owns the frontmost-app service.
    std::weak_ptr<FrontmostAppProvider> frontmost = frontmostApp;
    repositoryContext = std::make_shared<RepositoryContextProvider>(std::move(processes), std::move(documents),
                                                                    [frontmost]() -> std::optional<qint32> {
                                                                        if (auto provider = frontmost.lock())
                                                                            return provider->frontmostApp().processID;
                                                                        return std::nullopt;
                                                                    });
}
