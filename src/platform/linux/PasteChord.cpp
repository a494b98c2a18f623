#include "platform/linux/PasteChord.h"

#include <QStringList>

namespace {

// Terminals that paste the PRIMARY selection with Shift+Insert.
const QStringList xtermLikes = {"xterm", "uxterm", "urxvt", "rxvt", "rxvt-unicode"};
// Terminals where Ctrl+V is a control character and the paste is Ctrl+Shift+V.
const QStringList terminals = {"gnome-terminal",
                               "gnome-terminal-server",
                               "org.gnome.terminal",
                               "konsole",
                               "xfce4-terminal",
                               "kitty",
                               "alacritty",
                               "tilix",
                               "com.gexperts.tilix",
                               "terminator",
                               "foot",
                               "footclient",
                               "mate-terminal",
                               "lxterminal",
                               "qterminal",
                               "terminology",
                               "sakura",
                               "guake",
                               "tilda",
                               "st-256color",
                               "wezterm",
                               "org.wezfurlong.wezterm"};

} // namespace

PasteChord pasteChordFor(const QString &applicationClass, const QString &instance) {
    const QString name = applicationClass.toLower(), lowerInstance = instance.toLower();
    if (xtermLikes.contains(name) || xtermLikes.contains(lowerInstance))
        return PasteChord::shiftInsert;
    if (terminals.contains(name) || terminals.contains(lowerInstance))
        return PasteChord::ctrlShiftV;
    return PasteChord::ctrlV;
}
