#include "app/AppShell.h"

#include "app/HistoryWindow.h"
#include "app/OnboardingWindow.h"
#include "app/RecordingOverlay.h"
#include "app/SettingsApplier.h"
#include "app/SetupChecks.h"
#include "app/TrayIcon.h"
#include "app/TrayMenu.h"
#include "core/AppInfo.h"
#include "core/Async.h"
#include "core/LaunchAtLogin.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/QuorvaneError.h"
#include "core/Terminal.h"
#include "pipeline/Pipeline.h"
#include "platform/PlatformKitFactory.h"
#include "platform/PresentingNotifier.h"
#include "platform/SessionType.h"
#ifdef Q_OS_LINUX
#include "platform/linux/FreedesktopNotifications.h"
#endif

#include <QApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QFileDialog>
#include <QInputDialog>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QUrl>

namespace {

QString hotkeyFixStep() {
#ifdef Q_OS_MACOS
    return QStringLiteral("Allow Quorvane under System Settings \u203A Privacy & Security \u203A Accessibility, then "
                          "restart it from the menu.");
#else
    if (SessionType::current() == SessionType::Kind::wayland)
        return QStringLiteral("Quit any other Quorvane (only one can take the compositor's key bindings) and check "
                              "that the session bus runs, then restart Quorvane from the menu.");
    return QStringLiteral("Log in to an X11 or Wayland desktop session, then restart Quorvane from the menu.");
#endif
}

SetupChecks::Desktop thisDesktop() {
#ifdef Q_OS_MACOS
    return SetupChecks::Desktop::macOS;
#else
    return SetupChecks::Desktop::x11;
#endif
}

} // namespace

AppShell::AppShell() = default;

AppShell::~AppShell() {
    for (const auto &hotkey : m_hotkeys)
        hotkey->stop();
    // The windows read the checks and the store.
    m_onboarding.reset();
    m_history.reset();
    m_checks.reset();
    // The menu's hooks and the applier reach into the pipeline: both go first.
    m_menu.reset();
    m_settings.reset();
}

void AppShell::startPipeline() {
    PlatformKit kit = makePlatformKit(m_config);
    const PlatformKit::HotkeyFactory makeHotkey = kit.hotkey;
    if (auto *notifier = dynamic_cast<PresentingNotifier *>(kit.notifier.get()))
        notifier->present = [this](const QString &title, const QString &body) { present(title, body); };
    m_pipeline = std::make_unique<Pipeline>(m_config, std::move(kit));
    m_pipeline->onStateChange = [this](const PipelineState &state) { m_presenter.update(state); };
    m_pipeline->platform().capture->warmUp(m_pipeline->asr().requiredSampleRate());

    const std::pair<PushToTalkKey, PipelineMode> bindings[] = {
        {m_config.pushToTalkKey, PipelineMode::dictation},
        {m_config.editKey, PipelineMode::editSelection},
        {m_config.promptKey, PipelineMode::developerPrompt},
    };
    bool armed = true;
    for (const auto &[key, mode] : bindings) {
        std::unique_ptr<GlobalHotkey> hotkey = makeHotkey(key, mode);
        m_pipeline->bindHotkey(*hotkey, mode);
        armed = hotkey->start() && armed;
        m_hotkeys.push_back(std::move(hotkey));
    }
    m_hotkeysArmed = armed;
    if (!armed) {
        Log::warn(QStringLiteral("The push-to-talk keys could not be armed on this desktop."));
        Terminal::tell(QStringLiteral("The push-to-talk keys could not be armed on this desktop, so holding them "
                                      "does not record."));
        // Where the desktop says why, the user reads that reason rather than a guess.
        const std::shared_ptr<DesktopPermissions> permissions = m_pipeline->platform().permissions;
        const QString reason = permissions && !permissions->accessibilityTrusted()
                                   ? QuorvaneError(QuorvaneError::Case::accessibilityDenied).message()
                                   : QStringLiteral("Quorvane cannot watch its keys on this desktop.");
        m_pipeline->platform().notifier->notify(QStringLiteral("Push-to-talk keys are not armed"),
                                                reason + QLatin1Char(' ') + hotkeyFixStep());
    }

    m_settings = std::make_unique<SettingsApplier>(
        *m_pipeline,
        [this](PipelineMode mode) -> GlobalHotkey * {
            const auto index = static_cast<std::size_t>(mode);
            return index < m_hotkeys.size() ? m_hotkeys[index].get() : nullptr;
        },
        [](bool enabled) { LaunchAtLogin::set(enabled); });
    detach(prepareAndReport(), [](std::exception_ptr) { Log::error(QStringLiteral("Preparation failed.")); });
}

QCoro::Task<void> AppShell::prepareAndReport() {
    QPointer<AppShell> self(this);
    co_await m_pipeline->prepare();
    if (!self)
        co_return;
    // Not the state: a dictation under way when preparation ended keeps its own.
    const std::optional<QString> problem = m_pipeline->preparationProblem();
    if (problem)
        m_pipeline->platform().notifier->notify(QStringLiteral("Quorvane is not ready"), *problem);
    if (m_checks) {
        m_checks->facts().engine = problem ? SetupChecks::Engine::failed : SetupChecks::Engine::ready;
        m_checks->facts().engineProblem = problem.value_or(QString());
        m_checks->changed();
    }
}

void AppShell::showSetup() {
    if (!m_checks) {
        m_checks = std::make_unique<SetupChecks>(thisDesktop());
        m_checks->onChange = [this] {
            if (m_onboarding)
                m_onboarding->refresh();
        };
    }
    if (!m_onboarding) {
        const QString key = m_pipeline->platform().keyDisplayName
                                ? m_pipeline->platform().keyDisplayName(m_config.pushToTalkKey)
                                : displayName(m_config.pushToTalkKey);
        m_onboarding = std::make_unique<OnboardingWindow>(*m_checks, key);
        m_onboarding->onAction = [this](SetupChecks::Action action) { onSetupAction(static_cast<int>(action)); };
        m_onboarding->onCheckAgain = [this] { recheck(); };
        m_onboarding->onClose = [this] { finishOnboarding(); };
    }
    recheck();
    m_onboarding->show();
    m_onboarding->raise();
    m_onboarding->activateWindow();
}

void AppShell::recheck() {
    SetupChecks::Facts &facts = m_checks->facts();
    facts.sessionType = SetupChecks::sessionType();
    facts.sessionGaps = m_pipeline->platform().sessionGaps;
    facts.pasteSetup = m_pipeline->platform().pasteSetup;
    facts.keySetup = m_pipeline->platform().keySetup;
    facts.trayHost = QSystemTrayIcon::isSystemTrayAvailable();
    facts.assistiveTechnology = SetupChecks::assistiveTechnologyEnabled();
    facts.hotkeysArmed = m_hotkeysArmed;
    if (const std::shared_ptr<DesktopPermissions> permissions = m_pipeline->platform().permissions) {
        facts.microphonePermission = permissions->microphone();
        facts.accessibilityTrusted = permissions->accessibilityTrusted();
    }
    facts.asr = m_config.asr;
    // Asked afresh each time: a reload may have replaced the capture.
    m_checks->listen([this] { return m_pipeline->platform().capture->currentLevel(); },
                     [this] { return m_pipeline->platform().capture->lastCaptureStatus(); });
    const auto logged = [](std::exception_ptr) { Log::error(QStringLiteral("A setup check failed to run.")); };
    detach(checkEngine(), logged);
    detach(lookForWhisperServer(), logged);
}

QCoro::Task<void> AppShell::checkEngine() {
    QPointer<AppShell> self(this);
    m_checks->facts().engine = SetupChecks::Engine::preparing;
    m_checks->changed();
    co_await m_pipeline->prepare();
    if (!self || !m_checks)
        co_return;
    const std::optional<QString> problem = m_pipeline->preparationProblem();
    m_checks->facts().engine = problem ? SetupChecks::Engine::failed : SetupChecks::Engine::ready;
    m_checks->facts().engineProblem = problem.value_or(QString());
    m_checks->changed();
}

QCoro::Task<void> AppShell::lookForWhisperServer() {
    QPointer<AppShell> self(this);
    const bool found = co_await SetupChecks::whisperServerAnswers(QUrl(Config::defaultWhisperEndpoint()));
    if (!self || !m_checks)
        co_return;
    m_checks->facts().whisperServerFound = found;
    m_checks->changed();
}

void AppShell::onSetupAction(int action) {
    switch (static_cast<SetupChecks::Action>(action)) {
    case SetupChecks::Action::requestMicrophone:
        if (const std::shared_ptr<DesktopPermissions> permissions = m_pipeline->platform().permissions)
            permissions->requestMicrophone([this](bool) {
                // The answer comes on a thread of the system; the microphone warms up only once allowed.
                runOn(this, [this] {
                    m_pipeline->platform().capture->warmUp(m_pipeline->asr().requiredSampleRate());
                    if (m_checks)
                        recheck();
                });
            });
        break;
    case SetupChecks::Action::openMicrophoneSettings:
        if (const std::shared_ptr<DesktopPermissions> permissions = m_pipeline->platform().permissions)
            permissions->openMicrophoneSettings();
        break;
    case SetupChecks::Action::openAccessibilitySettings:
        if (const std::shared_ptr<DesktopPermissions> permissions = m_pipeline->platform().permissions)
            permissions->openAccessibilitySettings();
        break;
    case SetupChecks::Action::useWhisperServer: {
        Config updated = m_config;
        updated.asr = AsrKind::whisperServer;
        updated.whisperEndpoint = Config::defaultWhisperEndpoint();
        applySettings(updated);
        recheck();
        break;
    }
    case SetupChecks::Action::none:
        break;
    }
}

void AppShell::finishOnboarding() {
    if (m_config.didCompleteOnboarding)
        return;
    Config updated = m_config;
    updated.didCompleteOnboarding = true;
    applySettings(updated);
    Log::info(QStringLiteral("Onboarding completed."));
}

void AppShell::showHistory() {
    if (!m_history) {
        m_history = std::make_unique<HistoryWindow>(m_pipeline->store());
        m_history->confirm = [](const QString &title, const QString &question) {
            return QMessageBox::question(nullptr, title, question, QMessageBox::Yes | QMessageBox::Cancel,
                                         QMessageBox::Cancel) == QMessageBox::Yes;
        };
        m_history->deleteAll = [this](std::function<void()> done) {
            m_pipeline->store().deleteRetainedData(this, [this, done](std::optional<QString> error) {
                if (error)
                    m_pipeline->platform().notifier->notify(QStringLiteral("Could not delete everything"),
                                                            QStringLiteral("Quorvane %1.").arg(*error));
                else
                    Log::info(QStringLiteral("History deleted by the user."));
                done();
            });
        };
    }
    m_history->reload();
    m_history->show();
    m_history->raise();
    m_history->activateWindow();
}

void AppShell::drawState(const PipelineState &state) {
    if (m_tray) {
        m_tray->setIcon(trayIconFor(state.kind));
        m_tray->setToolTip(QStringLiteral("Quorvane \u00B7 ") + TrayMenu::stateText(state));
    }
    if (!m_overlay)
        return;
    if (m_config.showOverlay)
        m_overlay->showState(state, m_pipeline->activeMode());
    else
        m_overlay->showState(PipelineState::idle(), m_pipeline->activeMode());
}

const QIcon &AppShell::trayIconFor(PipelineState::Kind state) {
    auto icon = m_trayIcons.find(state);
    if (icon == m_trayIcons.end())
        icon = m_trayIcons.emplace(state, trayIcon(state)).first;
    return icon->second;
}

void AppShell::applySettings(const Config &updated) {
    m_config = updated;
    if (m_settings)
        m_settings->apply(updated);
    if (m_menu && m_menu->config() != updated)
        m_menu->setConfig(updated);
    if (m_history && !m_config.retainHistory)
        m_history->close();
    if (!m_config.showOverlay && m_overlay)
        m_overlay->showState(PipelineState::idle(), PipelineMode::dictation);
}

void AppShell::present(const QString &title, const QString &body) {
    QPointer<AppShell> self(this);
    const auto balloon = [self, title, body] {
        if (self && self->m_tray && self->m_tray->isVisible())
            self->m_tray->showMessage(title, body);
    };
#ifdef Q_OS_LINUX
    FreedesktopNotifications::show(title, body, balloon);
#else
    balloon();
#endif
}

void AppShell::deleteRetainedData() {
    m_pipeline->learner().clear();
    m_pipeline->forgetHeldDictation();
    m_pipeline->store().deleteRetainedData(this, [this](std::optional<QString> error) {
        if (error)
            m_pipeline->platform().notifier->notify(QStringLiteral("Could not delete everything"),
                                                    QStringLiteral("Quorvane %1.").arg(*error));
        else
            Log::info(QStringLiteral("Retained data deleted by the user."));
    });
}

void AppShell::openVocabulary() {
    m_pipeline->store().ensureVocabularyFile();
    QDesktopServices::openUrl(QUrl::fromLocalFile(m_pipeline->store().vocabularyPath()));
}

void AppShell::restart() {
    QStringList arguments = QCoreApplication::arguments();
    arguments.removeFirst();
    if (!QProcess::startDetached(QCoreApplication::applicationFilePath(), arguments)) {
        Log::error(QStringLiteral("Could not restart Quorvane."));
        return;
    }
    QCoreApplication::quit();
}

void AppShell::buildTray() {
    TrayMenu::Hooks hooks;
    hooks.keyName = m_pipeline->platform().keyDisplayName;
    hooks.isAgentAvailable = [this](AgentKind agent) { return m_pipeline->isAgentAvailable(agent); };
    hooks.status = [this] {
        TrayMenu::Status status;
        status.state = m_pipeline->state();
        status.learnedWords = m_pipeline->learner().learnedCount();
        status.historyCount = m_pipeline->store().totalCount();
        status.p50 = m_pipeline->latency().percentile(50);
        status.p95 = m_pipeline->latency().percentile(95);
        status.canRetry = m_pipeline->canRetry();
        return status;
    };
    hooks.chooseFolder = []() -> std::optional<QString> {
        const QString folder = QFileDialog::getExistingDirectory(nullptr, QStringLiteral("Repository for Prompt Mode"));
        return folder.isEmpty() ? std::nullopt : std::optional<QString>(folder);
    };
    hooks.askOllamaModel = [](const QString &current) -> std::optional<QString> {
        bool ok = false;
        const QString name =
            QInputDialog::getText(nullptr, QStringLiteral("Ollama model"),
                                  QStringLiteral("Model name, as Ollama lists it:"), QLineEdit::Normal, current, &ok);
        return ok ? std::optional<QString>(name) : std::nullopt;
    };
    hooks.confirm = [](const QString &title, const QString &question) {
        return QMessageBox::question(nullptr, title, question, QMessageBox::Yes | QMessageBox::Cancel,
                                     QMessageBox::Cancel) == QMessageBox::Yes;
    };
    hooks.inform = [](const QString &title, const QString &message) {
        QMessageBox::information(nullptr, title, message);
    };
    hooks.onChange = [this](const Config &updated) { applySettings(updated); };
    hooks.retryLastDictation = [this] { m_pipeline->retryLastDictation(); };
    hooks.forgetLearnedWords = [this] { m_pipeline->learner().clear(); };
    hooks.deleteRetainedData = [this] { deleteRetainedData(); };
    hooks.openVocabulary = [this] { openVocabulary(); };
    hooks.showHistory = [this] { showHistory(); };
    hooks.showSetup = [this] { showSetup(); };
    hooks.restart = [this] { restart(); };
    hooks.quit = [] { QCoreApplication::quit(); };
    m_menu = std::make_unique<TrayMenu>(m_config, std::move(hooks));

    m_tray = std::make_unique<QSystemTrayIcon>(trayIconFor(m_pipeline->state().kind));
    m_tray->setToolTip(QStringLiteral("Quorvane \u00B7 ") + TrayMenu::stateText(m_pipeline->state()));
    m_tray->setContextMenu(m_menu->menu());
    // Most Linux trays open the menu on a plain click too.
    connect(m_tray.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && !m_menu->menu()->isVisible())
            m_menu->menu()->popup(QCursor::pos());
    });
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        Log::warn(QStringLiteral("No system tray is available; Quorvane keeps running without its icon."));
    m_tray->show();

    m_overlay = std::make_unique<RecordingOverlay>();
    // Asked afresh each time: a reload may have replaced the capture.
    m_overlay->level = [this] { return m_pipeline->platform().capture->currentLevel(); };
}

void AppShell::start() {
    m_config = Config::load(Paths::file(QStringLiteral("config.json")));
    Log::info(QStringLiteral("Quorvane %1 started").arg(AppInfo::version()));
    startPipeline();
    buildTray();
    if (!m_config.didCompleteOnboarding)
        showSetup();
}
