#pragma once

#include <QString>
#include <QStringList>

// The windows a Wayland compositor manages, by the identifiers it gives them (a sway node id, a
// Hyprland address): which exist, and which one has the focus (empty: none).
struct CompositorWindows {
    QStringList all;
    QString focused;
    bool operator==(const CompositorWindows &) const = default;
};
