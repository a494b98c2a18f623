#include "platform/linux/XdgAutostart.h"

#include "core/Paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

XdgAutostart::XdgAutostart(QString entryPath, QString executable)
    : m_entryPath(std::move(entryPath)), m_executable(std::move(executable)) {}

XdgAutostart XdgAutostart::forCurrentUser() {
    const QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return XdgAutostart(config + QStringLiteral("/autostart/quorvane.desktop"),
                        QCoreApplication::applicationFilePath());
}

QByteArray XdgAutostart::entry() const {
    // Exec quoting: a double-quoted argument with \, ", ` and $ escaped.
    QString quoted = m_executable;
    for (const char *special : {"\\", "\"", "`", "$"})
        quoted.replace(QLatin1String(special), QLatin1String("\\") + QLatin1String(special));
    return QByteArray("[Desktop Entry]\nType=Application\nName=Quorvane\nComment=Push-to-talk dictation\nExec=\"") +
           quoted.toUtf8() + QByteArray("\"\nTerminal=false\nX-GNOME-Autostart-enabled=true\n");
}

bool XdgAutostart::isEnabled() {
    return QFileInfo::exists(m_entryPath);
}

bool XdgAutostart::isCurrent() const {
    QFile file(m_entryPath);
    return file.open(QIODevice::ReadOnly) && file.readAll() == entry();
}

QString XdgAutostart::enable() {
    const QString folder = QFileInfo(m_entryPath).absolutePath();
    if (!QDir().mkpath(folder))
        return QStringLiteral("could not create %1").arg(folder);
    QSaveFile file(m_entryPath);
    if (!file.open(QIODevice::WriteOnly))
        return file.errorString();
    file.write(entry());
    if (!file.commit())
        return file.errorString();
    Paths::protectFile(m_entryPath);
    return {};
}

QString XdgAutostart::disable() {
    QFile file(m_entryPath);
    if (!file.exists() || file.remove())
        return {};
    return file.errorString();
}

namespace LaunchAtLogin {

void set(bool enabled) {
    XdgAutostart service = XdgAutostart::forCurrentUser();
    // An entry another copy wrote (a build folder, a run with another data directory) would start
    // that copy at login: switching on replaces it with one for this program.
    if (enabled && service.isEnabled() && !service.isCurrent())
        service.disable();
    apply(service, enabled);
}

} // namespace LaunchAtLogin
