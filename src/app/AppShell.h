#pragma once

#include "core/Config.h"

#include <QObject>
#include <memory>

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
    Config m_config;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
};
