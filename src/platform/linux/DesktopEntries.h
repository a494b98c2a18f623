#pragma once

#include "platform/TextInjection.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

// The installed applications' .desktop files, to name a window's application the way the desktop's
// menus do and to give it a stable identity (the desktop-entry ID, e.g. "org.gnome.Terminal").
class DesktopEntries {
public:
    struct Entry {
        QString id;   // file name without ".desktop", subfolders joined with "-"
        QString name; // the untranslated Name
        QString startupWMClass;
        bool operator==(const Entry &) const = default;
    };
    // What a window says about its application.
    struct Window {
        QString applicationID; // _GTK_APPLICATION_ID, or _KDE_NET_WM_DESKTOP_FILE
        QString wmInstance;
        QString wmClass;
    };

    // Reads the applications folders under `dataDirs`, earlier folders winning for the same ID.
    explicit DesktopEntries(const QStringList &dataDirs);
    // $XDG_DATA_HOME and $XDG_DATA_DIRS, with their defaults.
    static QStringList standardDataDirs();

    // The entry the window belongs to: its declared application ID, then a StartupWMClass equal to
    // its class, then an ID equal to its class or instance.
    std::optional<Entry> match(const Window &window) const;
    // The window's application named and identified by its entry, else by what the window says;
    // no process id.
    FrontmostApp describe(const Window &window) const;
    const std::vector<Entry> &entries() const { return m_entries; }

private:
    std::vector<Entry> m_entries;
};
