#include "platform/PlatformKitFactory.h"

#include "core/Log.h"
#include "core/Paths.h"
#include "platform/FocusedDocumentSource.h"
#include "platform/HotkeyBackend.h"
#include "platform/HotkeyFanOut.h"
#include "platform/PasteTextInjector.h"
#include "platform/PresentingNotifier.h"
#include "platform/PushToTalkHotkey.h"
#include "platform/SessionType.h"
#include "platform/WarmMicrophone.h"
#include "platform/linux/FreedesktopNotifications.h"
#include "platform/linux/HyprlandFrontmostApp.h"
#include "platform/linux/LinuxAppRules.h"
#include "platform/linux/PocketSphinxEngine.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "platform/linux/PulseAudioBackend.h"
#include "platform/linux/PulseCuePlayer.h"
#include "platform/linux/SwayFrontmostApp.h"
#include "platform/linux/X11FocusedDocumentSource.h"
#include "platform/linux/X11FrontmostApp.h"
#include "platform/linux/X11HandoffTerminal.h"
#include "platform/linux/X11HotkeyBackend.h"
#include "platform/linux/X11TextBackend.h"
#include "platform/linux/wayland/PortalTextBackend.h"
#include "platform/linux/wayland/RemoteDesktopSession.h"
#include "platform/linux/wayland/WaylandHandoffTerminal.h"
#include "platform/linux/wayland/WaylandKeys.h"
#include "platform/linux/wayland/WaylandTextBackend.h"
#include "repository/AgentHandoffLauncher.h"

#include <QDBusConnection>
#include <QDir>
#include <QGuiApplication>

namespace {

// Desktop services need the desktop application; the command-line commands keep the fallbacks.
bool isDesktopApplication() {
    return qobject_cast<QGuiApplication *>(QCoreApplication::instance()) != nullptr;
}

void wireX11(PlatformKit &kit) {
    auto keys = std::make_shared<HotkeyFanOut>(std::make_shared<X11HotkeyBackend>());
    kit.hotkey = [keys](PushToTalkKey key, PipelineMode) -> std::unique_ptr<GlobalHotkey> {
        return std::make_unique<PushToTalkHotkey>(key, keys->tap());
    };
    kit.frontmostApp = std::make_shared<X11FrontmostApp>();
    auto injector = std::make_shared<PasteTextInjector>(std::make_shared<X11TextBackend>());
    kit.injector = injector;
    kit.selectionEditor = injector;
    kit.agentHandoff =
        std::make_shared<AgentHandoffLauncher>(injector, kit.frontmostApp, std::make_shared<ProcProcessTreeSource>(),
                                               std::make_shared<X11HandoffTerminal>(), QDir::homePath());
    Log::info(QStringLiteral("X11 session: keys through XInput2, paste through the clipboard and XTest."));
}

void wireWayland(PlatformKit &kit) {
    // No client may watch the keyboard here: the desktop's shortcut portal or the compositor's
    // bindings tell us about the keys instead.
    const WaylandKeys::Route keys = WaylandKeys::choose(GlobalShortcutsSession::probe(QDBusConnection::sessionBus()));
    kit.hotkey = keys.hotkey;
    kit.keySetup = keys.setupStep;

    // Hyprland's signature is set only inside a Hyprland session; otherwise sway's socket, if any.
    const QString hyprlandSocket = HyprlandFrontmostApp::socketPath(
        qEnvironmentVariable("XDG_RUNTIME_DIR"), qEnvironmentVariable("HYPRLAND_INSTANCE_SIGNATURE"));
    const QString swaySocket = qEnvironmentVariable("SWAYSOCK");
    std::function<QString()> applicationID;
    WaylandHandoffTerminal::WindowList windows;
    bool windowTree = false;
    if (!hyprlandSocket.isEmpty()) {
        auto hyprland = std::make_shared<HyprlandFrontmostApp>(hyprlandSocket);
        kit.frontmostApp = hyprland;
        applicationID = [weak = std::weak_ptr(hyprland)] {
            const auto provider = weak.lock();
            return provider ? provider->focusedApplicationID() : QString();
        };
        windows = [weak = std::weak_ptr(hyprland)] {
            const auto provider = weak.lock();
            return provider ? provider->windows() : std::nullopt;
        };
        windowTree = HyprlandFrontmostApp::answers(hyprlandSocket);
    } else {
        auto sway = std::make_shared<SwayFrontmostApp>(swaySocket);
        kit.frontmostApp = sway;
        applicationID = [weak = std::weak_ptr(sway)] {
            const auto provider = weak.lock();
            return provider ? provider->focusedApplicationID() : QString();
        };
        windows = [weak = std::weak_ptr(sway)] {
            const auto provider = weak.lock();
            return provider ? provider->windows() : std::nullopt;
        };
        windowTree = SwayFrontmostApp::answers(swaySocket);
    }
    std::weak_ptr<FrontmostAppProvider> weakFront = kit.frontmostApp;
    auto text = std::make_shared<WaylandTextBackend>(applicationID, [weakFront]() -> std::optional<qint32> {
        const auto provider = weakFront.lock();
        return provider ? provider->frontmostApp().processID : std::nullopt;
    });
    SessionType::WaylandServices services = text->services();
    services.windowTree = windowTree;
    std::shared_ptr<DesktopTextBackend> backend = text;
    QString paste = QStringLiteral("the compositor");
    // GNOME and KDE give ordinary clients no virtual keyboard; their portal's remote desktop
    // session sends the chord instead, and shares the clipboard where the compositor does not.
    if (services.connected && !services.virtualKeyboard) {
        const RemoteDesktopSession::Availability remote = RemoteDesktopSession::probe(QDBusConnection::sessionBus());
        if (remote.keyboard) {
            const bool portalClipboard = remote.clipboard && !services.clipboardControl;
            auto session = std::make_shared<RemoteDesktopSession>(QDBusConnection::sessionBus(), portalClipboard,
                                                                  Paths::file(QStringLiteral("remote-desktop.token")));
            // Now rather than at the first paste, so the desktop's dialog does not come mid-dictation.
            session->start();
            backend = std::make_shared<PortalTextBackend>(session, text, services.clipboardControl, applicationID);
            services.portalKeyboard = true;
            services.portalClipboard = portalClipboard;
            paste = portalClipboard ? QStringLiteral("the desktop portal's remote desktop (keyboard and clipboard)")
                                    : QStringLiteral("the desktop portal's remote desktop (keyboard)");
            kit.pasteSetup = QStringLiteral(
                "Quorvane pastes through your desktop's remote desktop portal: allow it to control the keyboard when "
                "the desktop asks (once; the permission is kept in Quorvane's data folder).");
        } else {
            paste = QStringLiteral("the compositor, since %1").arg(remote.problem);
        }
    }
    auto injector = std::make_shared<PasteTextInjector>(backend);
    kit.injector = injector;
    kit.selectionEditor = injector;
    // The agent's new window is told from the compositor's window list, and Return goes through our
    // own virtual keyboard: without either, the prompt stays on the clipboard.
    if (windowTree && services.virtualKeyboard)
        kit.agentHandoff = std::make_shared<AgentHandoffLauncher>(
            injector, kit.frontmostApp, std::make_shared<ProcProcessTreeSource>(),
            std::make_shared<WaylandHandoffTerminal>(windows, [text] { return text->pressReturn(); }),
            QDir::homePath());

    kit.sessionGaps = SessionType::waylandGaps(services);
    const auto has = [](bool present) { return present ? QStringLiteral("yes") : QStringLiteral("no"); };
    Log::info(QStringLiteral("Wayland session: keys through %1, clipboard control %2, virtual keyboard %3, window "
                             "tree %4, XWayland clipboard %5, paste through %6.")
                  .arg(keys.summary, has(services.clipboardControl), has(services.virtualKeyboard),
                       has(services.windowTree), has(services.x11Clipboard), paste));
    for (const QString &gap : std::as_const(kit.sessionGaps))
        Log::warn(gap);
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

    const SessionType::Kind session = isDesktopApplication() ? SessionType::current() : SessionType::Kind::none;
    if (session != SessionType::Kind::none) {
        kit.makeCapture =
            PlatformKit::captureFactory(std::make_shared<WarmMicrophone>(std::make_shared<PulseAudioBackend>()));
        kit.cues = std::make_shared<PulseCuePlayer>();
    }
    if (session == SessionType::Kind::x11)
        wireX11(kit);
    else if (session == SessionType::Kind::wayland)
        wireWayland(kit);
    else if (isDesktopApplication()) {
        kit.sessionGaps = {QStringLiteral("No graphical session was found (neither WAYLAND_DISPLAY nor DISPLAY is "
                                          "set): start Quorvane from inside your desktop session.")};
        Log::warn(kit.sessionGaps.constFirst());
    }
    kit.capture = kit.makeCapture(config);
    // Speech with nothing to set up: a missing model or another language is reported when it prepares.
    kit.nativeAsrEngine = [](const QString &locale) -> std::unique_ptr<AsrEngine> {
        return std::make_unique<PocketSphinxEngine>(locale);
    };

    std::shared_ptr<FocusedDocumentSource> documents;
    if (session == SessionType::Kind::x11)
        documents = std::make_shared<X11FocusedDocumentSource>(QDir::homePath());
    else
        documents = std::make_shared<UnsupportedFocusedDocumentSource>();
    kit.wireRepositoryContext(std::make_shared<ProcProcessTreeSource>(), documents);
    return kit;
}
