#include "platform/PlatformKitFactory.h"

#include "formatting/FoundationModelFormatter.h"
#include "platform/HotkeyFanOut.h"
#include "platform/PasteTextInjector.h"
#include "platform/PresentingNotifier.h"
#include "platform/PushToTalkHotkey.h"
#include "platform/WarmMicrophone.h"
#include "platform/mac/MacAudioCapture.h"
#include "platform/mac/MacCuePlayer.h"
#include "platform/mac/MacFocusedDocumentSource.h"
#include "platform/mac/MacFrontmostApp.h"
#include "platform/mac/MacHotkey.h"
#include "platform/mac/MacOnDeviceModel.h"
#include "platform/mac/MacPermissions.h"
#include "platform/mac/MacProcessTreeSource.h"
#include "platform/mac/MacSpeechRecognizer.h"
#include "platform/mac/MacTerminalApp.h"
#include "platform/mac/MacTextInjector.h"
#include "repository/AgentHandoffLauncher.h"
#include "speech/SystemSpeechEngine.h"

#include <QDir>
#include <QGuiApplication>

namespace {

// Keys, microphone, pasteboard and sounds belong to the menu-bar application; the command-line
// commands keep the fallbacks and open no device.
bool isDesktopApplication() {
    return qobject_cast<QGuiApplication *>(QCoreApplication::instance()) != nullptr;
}

void wireDesktop(PlatformKit &kit, const Config &config, const std::shared_ptr<ProcessTreeSource> &processes) {
    // One event tap for all the mode keys.
    auto keys = std::make_shared<HotkeyFanOut>(std::make_shared<MacHotkey>());
    kit.hotkey = [keys](PushToTalkKey key, PipelineMode) -> std::unique_ptr<GlobalHotkey> {
        return std::make_unique<PushToTalkHotkey>(key, keys->tap());
    };

    // One microphone for the life of the kit, so it stays warm across settings reloads.
    kit.makeCapture =
        PlatformKit::captureFactory(std::make_shared<WarmMicrophone>(std::make_shared<MacAudioCapture>()));
    kit.capture = kit.makeCapture(config);

    auto text = std::make_shared<PasteTextInjector>(std::make_shared<MacTextInjector>());
    kit.injector = text;
    kit.selectionEditor = text;
    kit.frontmostApp = std::make_shared<MacFrontmostApp>();
    // The shell installs `present`.
    kit.notifier = std::make_shared<PresentingNotifier>();
    kit.cues = std::make_shared<ReportingCuePlayer>(std::make_shared<MacCuePlayer>());
    kit.permissions = std::make_shared<MacPermissions>();

    kit.agentHandoff = std::make_shared<AgentHandoffLauncher>(text, kit.frontmostApp, processes,
                                                              std::make_shared<MacTerminalApp>(), QDir::homePath());
}

} // namespace

PlatformKit makePlatformKit(const Config &config) {
    PlatformKit kit = PlatformKit::fallbacks();
    kit.keyDisplayName = [](PushToTalkKey key) { return PhysicalKey::mac(key).displayName; };
    // The locale, permission and model are checked when the engine prepares, so a problem is reported
    // the way every engine reports one.
    kit.nativeAsrEngine = [](const QString &locale) -> std::unique_ptr<AsrEngine> {
        return std::make_unique<SystemSpeechEngine>(std::make_shared<MacSpeechRecognizer>(), locale);
    };
    kit.nativeFormatter = []() -> std::unique_ptr<TextFormatter> {
        return std::make_unique<FoundationModelFormatter>(std::make_shared<MacOnDeviceModel>());
    };
    auto processes = std::make_shared<MacProcessTreeSource>();
    if (isDesktopApplication())
        wireDesktop(kit, config, processes);
    // Last, so that it asks the frontmost-app service the kit ends up with.
    kit.wireRepositoryContext(processes, std::make_shared<MacFocusedDocumentSource>());
    return kit;
}
