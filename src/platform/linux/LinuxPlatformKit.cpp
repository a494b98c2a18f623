#include "platform/PlatformKitFactory.h"

#include "platform/FocusedDocumentSource.h"
#include "platform/HotkeyBackend.h"
#include "platform/PasteTextInjector.h"
#include "platform/PresentingNotifier.h"
#include "platform/PushToTalkHotkey.h"
#include "platform/WarmMicrophone.h"
#include "platform/linux/FreedesktopNotifications.h"
#include "platform/linux/LinuxAgentHandoffLauncher.h"
#include "platform/linux/LinuxAppRules.h"
#include "platform/linux/PocketSphinxEngine.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "platform/linux/PulseAudioBackend.h"
#include "platform/linux/X11FocusedDocumentSource.h"
#include "platform/linux/X11FrontmostApp.h"
#include "platform/linux/X11HotkeyBackend.h"
#include "platform/linux/X11TextBackend.h"

#include <QDir>
#include <QGuiApplication>

namespace {

// Desktop services need the desktop application and an X11 display; the command-line commands
// and sessions without X keep the fallbacks.
bool hasX11Desktop() {
    return qobject_cast<QGuiApplication *>(QCoreApplication::instance()) && !qEnvironmentVariableIsEmpty("DISPLAY");
}

} // namespace

PlatformKit makePlatformKit(const Config &config) {
    PlatformKit kit = PlatformKit::fallbacks();
    kit.pasteShortcut = QStringLiteral("Ctrl+V");
    kit.keyDisplayName = [](PushToTalkKey key) { return PhysicalKey::x11(key).displayName; };
    kit.appRules = linuxAppRules();

    auto notifier = std::make_shared<PresentingNotifier>();
    notifier->present = [](const QString &title, const QString &body) {
        FreedesktopNotifications::show(title, body, {});
    };
    kit.notifier = notifier;

    if (hasX11Desktop()) {
        kit.hotkey = [](PushToTalkKey key) -> std::unique_ptr<GlobalHotkey> {
            return std::make_unique<PushToTalkHotkey>(key, std::make_shared<X11HotkeyBackend>());
        };
        kit.makeCapture =
            PlatformKit::captureFactory(std::make_shared<WarmMicrophone>(std::make_shared<PulseAudioBackend>()));
        kit.frontmostApp = std::make_shared<X11FrontmostApp>();
        auto injector = std::make_shared<PasteTextInjector>(std::make_shared<X11TextBackend>());
        kit.injector = injector;
        kit.selectionEditor = injector;
        kit.agentHandoff = LinuxAgentHandoffLauncher::create(injector, kit.frontmostApp);
    }
    kit.capture = kit.makeCapture(config);
    // Speech with nothing to set up: a missing model or another language is reported when it prepares.
    kit.nativeAsrEngine = [](const QString &locale) -> std::unique_ptr<AsrEngine> {
        return std::make_unique<PocketSphinxEngine>(locale);
    };

    std::shared_ptr<FocusedDocumentSource> documents;
    if (hasX11Desktop())
        documents = std::make_shared<X11FocusedDocumentSource>(QDir::homePath());
    else
        documents = std::make_shared<UnsupportedFocusedDocumentSource>();
    kit.wireRepositoryContext(std::make_shared<ProcProcessTreeSource>(), documents);
    return kit;
}
