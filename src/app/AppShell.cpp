#include "app/AppShell.h"

#include "core/AppInfo.h"
#include "core/Log.h"
#include "core/Paths.h"

#include <QAction>
#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

namespace {

// A microphone glyph drawn at run time, so the tray needs no image files.
QIcon trayIcon() {
    QPixmap pixmap(64, 64);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(Qt::black);
    painter.drawRoundedRect(QRectF(22, 6, 20, 34), 10, 10);
    QPen pen(Qt::black, 5);
    pen.setCapStyle(Qt::RoundCap);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(QRectF(14, 18, 36, 32), 180 * 16, 180 * 16);
    painter.drawLine(QPointF(32, 50), QPointF(32, 58));
    painter.end();
    QIcon icon(pixmap);
    icon.setIsMask(true);
    return icon;
}

} // namespace

AppShell::AppShell() = default;
AppShell::~AppShell() = default;

void AppShell::start() {
    m_config = Config::load(Paths::file(QStringLiteral("config.json")));
    Log::info(QStringLiteral("Quorvane %1 started").arg(AppInfo::version()));

    m_menu = std::make_unique<QMenu>();
    QAction *version = m_menu->addAction(QStringLiteral("Quorvane %1").arg(AppInfo::version()));
    version->setEnabled(false);
    m_menu->addSeparator();
    QAction *quit = m_menu->addAction(QStringLiteral("Quit Quorvane"));
    connect(quit, &QAction::triggered, qApp, &QApplication::quit);

    m_tray = std::make_unique<QSystemTrayIcon>(trayIcon());
    m_tray->setToolTip(QStringLiteral("Quorvane"));
    m_tray->setContextMenu(m_menu.get());
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        Log::warn(QStringLiteral("No system tray is available; Quorvane keeps running without its icon."));
    m_tray->show();
}
