#pragma once

#include "app/StatePresenter.h"
#include "core/Config.h"
#include "pipeline/PipelineState.h"

#include <QCoro/QCoroTask>
#include <QIcon>
#include <QObject>
#include <map>
#include <memory>
#include <vector>

class GlobalHotkey;
class HistoryWindow;
class OnboardingWindow;
class SetupChecks;
class Pipeline;
class QSystemTrayIcon;
class RecordingOverlay;
class SettingsApplier;
class TrayMenu;

// The menu-bar / tray application: owns the pipeline, the key watchers, the tray with its menu and
// the recording overlay, and puts every settings change into effect.
class AppShell : public QObject {
    Q_OBJECT
public:
    AppShell();
    ~AppShell() override;

    void start();
    const Config &config() const { return m_config; }

private:
    void startPipeline();
    void buildTray();
    void drawState(const PipelineState &state);
    const QIcon &trayIconFor(PipelineState::Kind state);
    void applySettings(const Config &updated);
    void present(const QString &title, const QString &body);
    void deleteRetainedData();
    void openVocabulary();
    void restart();
    QCoro::Task<void> prepareAndReport();
    void showSetup();
    void recheck();
    QCoro::Task<void> checkEngine();
    QCoro::Task<void> lookForWhisperServer();
    void onSetupAction(int action);
    void finishOnboarding();
    void showHistory();

    Config m_config;
    std::unique_ptr<Pipeline> m_pipeline;
    // One watcher per mode key: dictation, Edit in Place, Prompt Mode.
    std::vector<std::unique_ptr<GlobalHotkey>> m_hotkeys;
    std::unique_ptr<SettingsApplier> m_settings;
    std::unique_ptr<TrayMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    std::unique_ptr<RecordingOverlay> m_overlay;
    bool m_hotkeysArmed = true;
    std::unique_ptr<SetupChecks> m_checks;
    std::unique_ptr<OnboardingWindow> m_onboarding;
    std::unique_ptr<HistoryWindow> m_history;
    // Drawn once each: a dictation changes the icon twice.
    std::map<PipelineState::Kind, QIcon> m_trayIcons;
    // Last: it draws into the tray and the overlay, and goes before them.
    StatePresenter m_presenter{[this](const PipelineState &state) { drawState(state); }};
};
