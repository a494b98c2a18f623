#pragma once

#include "core/Config.h"
#include "pipeline/PipelineState.h"

#include <QCoro/QCoroTask>
#include <QObject>
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
    void onStateChange(const PipelineState &state);
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
};
