#include "app/AppShell.h"

#include "core/AppInfo.h"
#include "core/Async.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/Terminal.h"
#include "pipeline/Pipeline.h"
#include "platform/PlatformKitFactory.h"

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

AppShell::~AppShell() {
    for (const auto &hotkey : m_hotkeys)
        hotkey->stop();
}

void AppShell::startPipeline() {
    PlatformKit kit = makePlatformKit(m_config);
    const PlatformKit::HotkeyFactory makeHotkey = kit.hotkey;
    m_pipeline = std::make_unique<Pipeline>(m_config, std::move(kit));
    m_pipeline->onStateChange = [this](const PipelineState &state) {
        if (m_tray)
            m_tray->setToolTip(QStringLiteral("Quorvane \u00B7 ") + state.description());
    };

    const std::pair<PushToTalkKey, PipelineMode> bindings[] = {
        {m_config.pushToTalkKey, PipelineMode::dictation},
        {m_config.editKey, PipelineMode::editSelection},
        {m_config.promptKey, PipelineMode::developerPrompt},
    };
    bool armed = true;
    for (const auto &[key, mode] : bindings) {
        std::unique_ptr<GlobalHotkey> hotkey = makeHotkey(key);
        m_pipeline->bindHotkey(*hotkey, mode);
        armed = hotkey->start() && armed;
        m_hotkeys.push_back(std::move(hotkey));
    }
    if (!armed) {
        Log::warn(QStringLiteral("The push-to-talk keys could not be armed on this desktop."));
        Terminal::tell(QStringLiteral("The push-to-talk keys could not be armed on this desktop, so holding them "
                                      "does not record."));
    }

    detach(m_pipeline->prepare(), [](std::exception_ptr) { Log::error(QStringLiteral("Preparation failed.")); });
}

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

    startPipeline();
}
