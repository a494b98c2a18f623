#pragma once

#include "core/LaunchAtLogin.h"

// Launch at login on freedesktop desktops: an entry in $XDG_CONFIG_HOME/autostart.
class XdgAutostart final : public LaunchAtLogin::Service {
public:
    // `entryPath` is the .desktop file; `executable` the program it starts.
    XdgAutostart(QString entryPath, QString executable);
    static XdgAutostart forCurrentUser();

    bool isEnabled() override;
    QString enable() override;
    QString disable() override;
    QByteArray entry() const;
    // Whether the entry on disk is the one this program would write.
    bool isCurrent() const;

private:
    QString m_entryPath;
    QString m_executable;
};
