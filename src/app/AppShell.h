#pragma once

#include "core/Config.h"

#include <QObject>
#include <memory>
#include <vector>

class GlobalHotkey;
class Pipeline;
class QMenu;
class QSystemTrayIcon;

// The menu-bar / tray application: owns the settings and the status icon with its menu.
class AppShell : public QObject {
    Q_OBJECT
public:
    AppShell();
    ~AppShell() override;

    void start();
    const Config &config() const { return m_config; }

private:
    void startPipeline();

    Config m_config;
    std::unique_ptr<Pipeline> m_pipeline;
    // One watcher per mode key: dictation, Edit in Place, Prompt Mode.
    std::vector<std::unique_ptr<GlobalHotkey>> m_hotkeys;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
};
