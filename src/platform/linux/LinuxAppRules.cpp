#include "platform/linux/LinuxAppRules.h"

QList<AppRule> linuxAppRules() {
    // Each default rule's macOS bundle ID and the Linux identities of the same kind of application.
    const QList<std::pair<QString, QStringList>> equivalents = {
        {QStringLiteral("com.tinyspeck.slackmacgap"), {"com.slack.Slack", "slack", "Slack"}},
        {QStringLiteral("com.apple.mail"),
         {"org.mozilla.Thunderbird", "thunderbird", "org.gnome.Evolution", "org.kde.kmail2", "mozilla-thunderbird"}},
        {QStringLiteral("com.apple.MobileSMS"),
         {"org.telegram.desktop", "signal-desktop", "org.signal.Signal", "im.riot.Riot", "org.gnome.Fractal"}},
        {QStringLiteral("com.microsoft.VSCode"),
         {"code", "com.visualstudio.code", "codium", "com.vscodium.codium", "Code", "VSCodium"}},
        {QStringLiteral("com.apple.Terminal"),
         {"org.gnome.Terminal", "org.gnome.Console", "org.kde.konsole", "debian-xterm", "debian-uxterm", "xterm",
          "XTerm", "UXTerm", "xfce4-terminal", "lxterminal", "kitty", "Alacritty", "foot", "terminator",
          "com.gexperts.Tilix", "com.mitchellh.ghostty", "org.wezfurlong.wezterm"}},
    };
    const QList<AppRule> defaults = Config::defaultAppRules();
    QList<AppRule> rules;
    for (const auto &[macBundleID, linuxIDs] : equivalents) {
        const std::optional<QString> style = AppRule::styleFor(defaults, macBundleID);
        if (!style)
            continue;
        for (const QString &id : linuxIDs)
            rules.append({id, *style});
    }
    return rules;
}
