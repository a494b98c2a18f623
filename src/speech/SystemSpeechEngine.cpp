#include "speech/SystemSpeechEngine.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "core/Text.h"
#include "core/Timeout.h"

#include <algorithm>
#include <cmath>

using Recognizer = OnDeviceSpeechRecognizer;

namespace {

// Waits for a platform callback, which may come on any thread, and resumes on this one. With a
// limit, an answer that has not come by then is absent.
template <typename T>
QCoro::Task<std::optional<T>> answer(std::function<void(std::function<void(T)>)> ask, Scheduler &scheduler,
                                     std::optional<qint64> limitMs = std::nullopt) {
    auto resolution = std::make_shared<detail::TimeoutResolution<T>>();
    ask([resolution](T value) {
        TimeoutOutcome<T> outcome;
        outcome.value = std::move(value);
        resolution->resolve(std::move(outcome));
    });
    Scheduler::Handle timer;
    if (limitMs)
        timer = scheduler.schedule(*limitMs, [resolution] { resolution->resolve(TimeoutOutcome<T>{}); });
    TimeoutOutcome<T> outcome = co_await typename detail::TimeoutResolution<T>::Awaiter(resolution.get());
    Scheduler::cancel(timer);
    if (outcome.timedOut())
        co_return std::nullopt;
    co_return std::move(*outcome.value);
}

QString permissionFix() {
    return QStringLiteral("speech recognition is not allowed for Quorvane. Allow it under System Settings \u203A "
                          "Privacy & Security \u203A Speech Recognition");
}

} // namespace

// The first-run model download, shared with the poller that logs its progress.
struct SystemSpeechEngine::Download {
    QString locale;
    std::function<double()> progress;
    int quartersLogged = 0;
    Scheduler::Handle poll;

    int percent() const { return progress ? int(std::clamp(progress(), 0.0, 1.0) * 100) : 0; }

    // One line per quarter, so a slow download shows it is moving without flooding the log.
    void logProgress() {
        const int quarters = std::min(percent() / 25, 3);
        if (quarters <= quartersLogged)
            return;
        quartersLogged = quarters;
        Log::info(QStringLiteral("Speech model for %1: %2 % downloaded").arg(locale).arg(quarters * 25));
    }
};

namespace {

void pollDownload(const std::weak_ptr<SystemSpeechEngine::Download> &weak, Scheduler &scheduler) {
    auto download = weak.lock();
    if (!download)
        return;
    download->poll = scheduler.schedule(SystemSpeechEngine::progressPollMs, [weak, &scheduler] {
        if (auto live = weak.lock()) {
            live->logProgress();
            pollDownload(weak, scheduler);
        }
    });
}

} // namespace

// Final segments of one utterance; a cancelled utterance's late segments land in a dropped one.
struct SystemSpeechEngine::Transcript {
    std::mutex lock;
    QStringList segments;

    void add(const QString &segment) {
        std::lock_guard guard(lock);
        segments.append(segment);
    }
    // Segments may or may not carry their own spaces.
    QString text() {
        std::lock_guard guard(lock);
        QStringList words;
        for (const QString &segment : segments)
            if (const QString trimmed = Text::trimmed(segment); !trimmed.isEmpty())
                words.append(trimmed);
        return words.join(QLatin1Char(' '));
    }
};

SystemSpeechEngine::SystemSpeechEngine(std::shared_ptr<OnDeviceSpeechRecognizer> recognizer, QString locale,
                                       Scheduler &scheduler)
    : m_recognizer(std::move(recognizer)), m_locale(std::move(locale)), m_scheduler(scheduler) {}

SystemSpeechEngine::~SystemSpeechEngine() {
    if (std::optional<Utterance> open = takeUtterance())
        open->session->cancel();
    if (m_download)
        Scheduler::cancel(m_download->poll);
}

QString SystemSpeechEngine::name() const {
    return m_recognizer->technology() == Recognizer::Technology::speechAnalyzer
               ? QStringLiteral("Apple SpeechAnalyzer")
               : QStringLiteral("Apple on-device speech recognizer");
}

QCoro::Task<void> SystemSpeechEngine::prepare() {
    if (m_prepared)
        co_return;
    if (m_download)
        throw QuorvaneError::speechModelUnavailable(
            QStringLiteral("the speech model for %1 is still downloading (%2 %)")
                .arg(m_locale)
                .arg(m_download->percent()));
    co_await ensurePermission();
    const auto support = co_await answer<Recognizer::LocaleSupport>(
        [recognizer = m_recognizer, locale = m_locale](auto done) { recognizer->localeSupport(locale, done); },
        m_scheduler);
    if (support == Recognizer::LocaleSupport::unsupported)
        throw QuorvaneError::localeUnsupported(m_locale);
    if (support == Recognizer::LocaleSupport::downloadable)
        co_await install();
    m_prepared = true;
    Log::info(QStringLiteral("ASR ready \u00B7 %1, %2").arg(name(), m_locale));
}

QCoro::Task<void> SystemSpeechEngine::ensurePermission() {
    switch (m_recognizer->permission()) {
    case Recognizer::Permission::granted:
        co_return;
    case Recognizer::Permission::denied:
        throw QuorvaneError::speechModelUnavailable(permissionFix());
    case Recognizer::Permission::undetermined:
        break;
    }
    const auto granted = co_await answer<bool>(
        [recognizer = m_recognizer](auto done) { recognizer->requestPermission(done); }, m_scheduler);
    if (granted != true)
        throw QuorvaneError::speechModelUnavailable(permissionFix());
}

QCoro::Task<void> SystemSpeechEngine::install() {
    Log::info(QStringLiteral("Downloading the on-device speech model for %1; this happens once.").arg(m_locale));
    auto download = std::make_shared<Download>();
    download->locale = m_locale;
    m_download = download;
    // The poller holds the download, not the engine, so a dropped engine leaves it harmless.
    auto resolution = std::make_shared<detail::TimeoutResolution<QString>>();
    download->progress = m_recognizer->install(m_locale, [resolution](QString error) {
        TimeoutOutcome<QString> outcome;
        outcome.value = std::move(error);
        resolution->resolve(std::move(outcome));
    });
    pollDownload(download, m_scheduler);
    const TimeoutOutcome<QString> outcome = co_await detail::TimeoutResolution<QString>::Awaiter(resolution.get());
    Scheduler::cancel(download->poll);
    m_download.reset();
    const QString error = outcome.get();
    if (!error.isEmpty())
        throw QuorvaneError::speechModelUnavailable(
            QStringLiteral("the speech model for %1 could not be downloaded: %2").arg(m_locale, error));
    Log::info(QStringLiteral("The on-device speech model for %1 is installed.").arg(m_locale));
}

QCoro::Task<void> SystemSpeechEngine::beginUtterance(QStringList contextualStrings) {
    if (!m_prepared)
        co_await prepare();
    auto transcript = std::make_shared<Transcript>();
    auto session = m_recognizer->start(m_locale, contextualStrings.mid(0, maxContextualStrings),
                                       [transcript](QString segment) { transcript->add(segment); });
    std::optional<Utterance> previous;
    {
        std::lock_guard guard(m_lock);
        previous = std::exchange(m_utterance, Utterance{session, transcript});
    }
    if (previous)
        previous->session->cancel();
}

void SystemSpeechEngine::append(const AudioChunk &chunk) {
    std::shared_ptr<Recognizer::Session> session;
    {
        std::lock_guard guard(m_lock);
        if (m_utterance)
            session = m_utterance->session;
    }
    if (session && !chunk.samples.empty())
        session->append(chunk.samples, chunk.sampleRate);
}

std::optional<SystemSpeechEngine::Utterance> SystemSpeechEngine::takeUtterance() {
    std::lock_guard guard(m_lock);
    return std::exchange(m_utterance, std::nullopt);
}

QCoro::Task<QString> SystemSpeechEngine::finishUtterance() {
    const std::optional<Utterance> utterance = takeUtterance();
    if (!utterance)
        co_return QString();
    const auto ending = co_await answer<Recognizer::Ending>(
        [session = utterance->session](auto done) { session->finish(done); }, m_scheduler, finishLimitMs);
    if (!ending) {
        utterance->session->cancel();
        throw QuorvaneError::speechModelUnavailable(
            QStringLiteral("the on-device recognizer did not finish within %1 s").arg(finishLimitMs / 1000));
    }
    switch (ending->kind) {
    case Recognizer::Ending::Kind::failed:
        throw QuorvaneError::speechModelUnavailable(
            ending->error.isEmpty() ? QStringLiteral("the on-device recognizer failed without a reason")
                                    : ending->error);
    case Recognizer::Ending::Kind::noSpeech:
        co_return QString();
    case Recognizer::Ending::Kind::finished:
        break;
    }
    co_return utterance->transcript->text();
}

QCoro::Task<void> SystemSpeechEngine::cancelUtterance() {
    if (std::optional<Utterance> open = takeUtterance())
        open->session->cancel();
    co_return;
}
