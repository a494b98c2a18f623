#pragma once

#include "core/Config.h"
#include "core/Scheduler.h"
#include "platform/AudioCapturing.h"
#include "platform/DesktopPermissions.h"

#include <QCoro/QCoroTask>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <optional>

// What this desktop must offer before dictation works, each with the one step that fixes it. The
// facts come from the shell; the microphone is listened to here for a while, since a warm microphone
// that delivers only silence looks just like a working one until someone speaks.
class SetupChecks {
public:
    enum class Desktop { x11, macOS };
    enum class Status { checking, passed, failed };
    // What the button beside a check does.
    enum class Action { none, requestMicrophone, openMicrophoneSettings, openAccessibilitySettings, useWhisperServer };

    struct Check {
        QString title;
        Status status = Status::checking;
        // What was found; for a failed check, what to do next.
        QString detail;
        Action action = Action::none;
        QString actionText;
    };

    enum class Engine { preparing, ready, failed };

    struct Facts {
        // "x11", "wayland", or empty without a session.
        QString sessionType;
        // What the session lacks, each with its next step (the platform kit's).
        QStringList sessionGaps;
        // How text is pasted where the desktop must allow it (the platform kit's).
        QString pasteSetup;
        // How the mode keys reach Quorvane and what the user does next (the platform kit's).
        QString keySetup;
        bool trayHost = false;
        // Unknown when the accessibility bus did not answer.
        std::optional<bool> assistiveTechnology;
        bool hotkeysArmed = true;
        // What the desktop's privacy settings say; unknown where it has none.
        std::optional<DesktopPermissions::State> microphonePermission;
        std::optional<bool> accessibilityTrusted;
        Engine engine = Engine::preparing;
        QString engineProblem;
        AsrKind asr = AsrKind::appleSpeech;
        // Unknown until the default whisper port has been asked.
        std::optional<bool> whisperServerFound;
        // The loudest level heard since listening began, and the capture's verdict on its last recording.
        float peakLevel = 0;
        AudioCaptureStatus verdict = AudioCaptureStatus::unknown;
        bool listenedLongEnough = false;
    };

    // Quieter than this is a closed or unplugged input, not a room.
    static constexpr float signalLevel = 0.002f;
    static constexpr qint64 listenMs = 8000;
    static constexpr qint64 pollMs = 50;

    explicit SetupChecks(Desktop desktop, Scheduler &scheduler = Scheduler::system());
    ~SetupChecks();
    SetupChecks(const SetupChecks &) = delete;
    SetupChecks &operator=(const SetupChecks &) = delete;

    static QList<Check> evaluate(Desktop desktop, const Facts &facts);
    QList<Check> checks() const { return evaluate(m_desktop, m_facts); }
    bool allPassed() const;

    Facts &facts() { return m_facts; }
    // After editing facts(): tells whoever shows the checks.
    void changed();
    std::function<void()> onChange;

    // Polls `level` until a signal is heard or the listening time is over; `verdict` decides after.
    void listen(std::function<float()> level, std::function<AudioCaptureStatus()> verdict);
    bool isListening() const { return m_poll != nullptr; }

    // Whether a whisper server answers its health check at `endpoint`.
    static QCoro::Task<bool> whisperServerAnswers(QUrl endpoint, int timeoutMs = 1500);
    // The session as this process sees it.
    static QString sessionType();
    // org.a11y.Status IsEnabled on the session bus.
    static std::optional<bool> assistiveTechnologyEnabled();

private:
    void poll();
    void stopListening();

    Desktop m_desktop;
    Scheduler &m_scheduler;
    Facts m_facts;
    Scheduler::Handle m_poll;
    qint64 m_listenedMs = 0;
    std::function<float()> m_level;
    std::function<AudioCaptureStatus()> m_verdict;
};
