#include "app/SetupChecks.h"

#include "core/LoopbackHttp.h"
#include "core/QuorvaneError.h"
#include "platform/SessionType.h"

#include <QtGlobal>
#ifdef Q_OS_LINUX
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#endif

namespace {

using Check = SetupChecks::Check;
using Status = SetupChecks::Status;

Check passed(const QString &title, const QString &detail) {
    return {title, Status::passed, detail, SetupChecks::Action::none, {}};
}

Check failed(const QString &title, const QString &nextStep) {
    return {title, Status::failed, nextStep, SetupChecks::Action::none, {}};
}

Check session(const SetupChecks::Facts &facts) {
    const QString title = QStringLiteral("Supported session");
    if (facts.sessionType == QLatin1String("x11"))
        return passed(title, QStringLiteral("X11: Quorvane can watch its keys and paste on this desktop."));
    if (facts.sessionType == QLatin1String("wayland")) {
        const QStringList setup = QStringList{facts.pasteSetup, facts.keySetup};
        if (!facts.sessionGaps.isEmpty())
            return failed(title, QStringLiteral("Wayland: ") +
                                     (facts.sessionGaps + setup).join(QLatin1Char(' ')).simplified());
        const QString paste =
            facts.pasteSetup.isEmpty() ? QStringLiteral("Quorvane pastes through the compositor.") : facts.pasteSetup;
        const QString keys =
            !facts.keySetup.isEmpty()
                ? facts.keySetup
                : QStringLiteral("Bind each mode key in your compositor to \u201Cquorvane key press dictate\u201D on "
                                 "press and \u201Cquorvane key release dictate\u201D on release (edit and prompt "
                                 "likewise); the README has the lines for sway, Hyprland, GNOME and KDE.");
        return passed(title, QStringLiteral("Wayland: ") + paste + QLatin1Char(' ') + keys);
    }
    return failed(title, QStringLiteral("No desktop session was found. Start Quorvane from inside an X11 or Wayland "
                                        "desktop session."));
}

Check withAction(Check check, SetupChecks::Action action, const QString &text) {
    check.action = action;
    check.actionText = text;
    return check;
}

Check microphone(SetupChecks::Desktop desktop, const SetupChecks::Facts &facts) {
    const bool mac = desktop == SetupChecks::Desktop::macOS;
    const QString title = mac ? QStringLiteral("Microphone permission") : QStringLiteral("Microphone");
    // Nothing can be heard without the permission, so it is asked for before anything is listened to.
    if (facts.microphonePermission == DesktopPermissions::State::denied)
        return withAction(failed(title, QuorvaneError(QuorvaneError::Case::microphoneDenied).message()),
                          SetupChecks::Action::openMicrophoneSettings, QStringLiteral("Open Microphone Settings"));
    if (facts.microphonePermission == DesktopPermissions::State::undetermined)
        return withAction(failed(title, QStringLiteral("Quorvane has not been allowed to use the microphone yet. "
                                                       "Press Allow and answer the system's question.")),
                          SetupChecks::Action::requestMicrophone, QStringLiteral("Allow"));
    if (facts.peakLevel >= SetupChecks::signalLevel || facts.verdict == AudioCaptureStatus::usable)
        return passed(title, QStringLiteral("The microphone delivers sound."));
    if (!facts.listenedLongEnough)
        return {
            title, Status::checking, QStringLiteral("Listening\u2026 say a few words."), SetupChecks::Action::none, {}};
    if (mac && facts.microphonePermission == DesktopPermissions::State::granted)
        return failed(title, QStringLiteral("Quorvane may use the microphone, but nothing was heard. Choose your "
                                            "microphone under System Settings \u203A Sound \u203A Input, then press "
                                            "Check again."));
    if (mac)
        return withAction(
            failed(title, QStringLiteral("Nothing was heard. Allow Quorvane under System Settings \u203A "
                                         "Privacy & Security \u203A Microphone, then press Check again.")),
            SetupChecks::Action::openMicrophoneSettings, QStringLiteral("Open Microphone Settings"));
    return failed(title, QStringLiteral("Nothing was heard. Choose your microphone as the input and unmute it in the "
                                        "sound settings (pavucontrol), then press Check again."));
}

Check trayHost(const SetupChecks::Facts &facts) {
    const QString title = QStringLiteral("Tray");
    if (facts.trayHost)
        return passed(title, QStringLiteral("Quorvane's icon and menu are in the tray."));
    return failed(title, QStringLiteral("No tray shows Quorvane's icon, and its menu lives there. Add a system tray "
                                        "(notification area) to your panel, or run a tray such as trayer, then "
                                        "restart Quorvane."));
}

Check assistiveTechnology(SetupChecks::Desktop desktop, const SetupChecks::Facts &facts) {
    if (desktop == SetupChecks::Desktop::macOS) {
        const QString title = QStringLiteral("Accessibility permission");
        if (facts.accessibilityTrusted == true && !facts.hotkeysArmed)
            return failed(title, QStringLiteral("Quorvane is allowed now, but its keys were set up before that. "
                                                "Restart it from the menu."));
        if (facts.accessibilityTrusted != false && facts.hotkeysArmed)
            return passed(title, QStringLiteral("Quorvane can watch its keys and paste."));
        QString step = QStringLiteral("Allow Quorvane under System Settings \u203A Privacy & Security \u203A "
                                      "Accessibility, then restart it from the menu.");
        if (facts.accessibilityTrusted == false)
            step = QuorvaneError(QuorvaneError::Case::accessibilityDenied).message() + QLatin1Char(' ') + step;
        return withAction(failed(title, step), SetupChecks::Action::openAccessibilitySettings,
                          QStringLiteral("Open Accessibility Settings"));
    }
    const QString title = QStringLiteral("Assistive technology");
    if (facts.assistiveTechnology == true)
        return passed(title, QStringLiteral("Quorvane can read selections and recognise password fields."));
    if (facts.assistiveTechnology == false)
        return failed(title, QStringLiteral("Turn it on with \"gsettings set org.gnome.desktop.interface "
                                            "toolkit-accessibility true\" (or your desktop's accessibility "
                                            "settings), then log out and back in."));
    return failed(title, QStringLiteral("The accessibility bus does not answer. Install at-spi2-core, then log out "
                                        "and back in."));
}

Check engine(const SetupChecks::Facts &facts) {
    const QString title = QStringLiteral("Speech engine");
    const QString name = displayName(facts.asr);
    Check check;
    switch (facts.engine) {
    case SetupChecks::Engine::preparing:
        check = {title, Status::checking, QStringLiteral("Starting %1\u2026").arg(name), SetupChecks::Action::none, {}};
        break;
    case SetupChecks::Engine::ready:
        check = passed(title, QStringLiteral("%1 answers.").arg(name));
        break;
    case SetupChecks::Engine::failed: {
        QString step =
            facts.engineProblem.isEmpty() ? QStringLiteral("%1 does not answer.").arg(name) : facts.engineProblem;
        if (facts.asr == AsrKind::whisperServer && facts.whisperServerFound != true)
            step += QStringLiteral(" Start whisper-server on 127.0.0.1:8080, or choose %1 under Speech engine in the "
                                   "menu.")
                        .arg(displayName(AsrKind::appleSpeech));
        check = failed(title, step);
        break;
    }
    }
    // The built-in engine works without setup; a whisper server the user already runs hears better.
    if (facts.asr != AsrKind::whisperServer && facts.whisperServerFound == true) {
        check.detail += QStringLiteral(" A whisper server answers on port 8080: it recognises speech more accurately.");
        check.action = SetupChecks::Action::useWhisperServer;
        check.actionText = QStringLiteral("Use the whisper server");
    }
    return check;
}

} // namespace

SetupChecks::SetupChecks(Desktop desktop, Scheduler &scheduler) : m_desktop(desktop), m_scheduler(scheduler) {}

SetupChecks::~SetupChecks() {
    stopListening();
}

QList<SetupChecks::Check> SetupChecks::evaluate(Desktop desktop, const Facts &facts) {
    if (desktop == Desktop::macOS)
        return {microphone(desktop, facts), assistiveTechnology(desktop, facts), engine(facts)};
    return {session(facts), microphone(desktop, facts), trayHost(facts), assistiveTechnology(desktop, facts),
            engine(facts)};
}

bool SetupChecks::allPassed() const {
    const QList<Check> all = checks();
    return std::all_of(all.begin(), all.end(), [](const Check &check) { return check.status == Status::passed; });
}

void SetupChecks::changed() {
    if (onChange)
        onChange();
}

void SetupChecks::listen(std::function<float()> level, std::function<AudioCaptureStatus()> verdict) {
    stopListening();
    m_level = std::move(level);
    m_verdict = std::move(verdict);
    m_listenedMs = 0;
    m_facts.peakLevel = 0;
    m_facts.listenedLongEnough = false;
    m_poll = m_scheduler.schedule(pollMs, [this] { poll(); });
    changed();
}

void SetupChecks::poll() {
    m_listenedMs += pollMs;
    const float level = m_level ? m_level() : 0.0f;
    if (level > m_facts.peakLevel)
        m_facts.peakLevel = level;
    if (m_verdict)
        m_facts.verdict = m_verdict();
    const bool heard = m_facts.peakLevel >= signalLevel;
    if (heard || m_listenedMs >= listenMs) {
        m_facts.listenedLongEnough = true;
        m_poll.reset();
        changed();
        return;
    }
    m_poll = m_scheduler.schedule(pollMs, [this] { poll(); });
}

void SetupChecks::stopListening() {
    Scheduler::cancel(m_poll);
    m_poll.reset();
}

QCoro::Task<bool> SetupChecks::whisperServerAnswers(QUrl endpoint, int timeoutMs) {
    try {
        LoopbackHttp http;
        const LoopbackHttp::Reply reply =
            co_await http.get(LoopbackHttp::appendPath(endpoint, QStringLiteral("health")), timeoutMs);
        co_return reply.status == 200;
    } catch (const std::exception &) {
        co_return false;
    }
}

QString SetupChecks::sessionType() {
    return SessionType::name(SessionType::current());
}

std::optional<bool> SetupChecks::assistiveTechnologyEnabled() {
#ifdef Q_OS_LINUX
    QDBusMessage get =
        QDBusMessage::createMethodCall(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled");
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 1000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    return reply.arguments().constFirst().value<QDBusVariant>().variant().toBool();
#else
    return std::nullopt;
#endif
}
