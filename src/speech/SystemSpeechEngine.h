#pragma once

#include "core/Scheduler.h"
#include "speech/AsrEngine.h"
#include "speech/OnDeviceSpeechRecognizer.h"

#include <memory>
#include <mutex>
#include <optional>

// The operating system's own recogniser behind the engine interface: it checks that the locale is
// recognised on the device, fetches the model the first time, streams each utterance to the
// recogniser while it is spoken and joins the final segments when it ends.
class SystemSpeechEngine final : public AsrEngine {
public:
    // The recogniser's own advice: more phrases bias it less.
    static constexpr qsizetype maxContextualStrings = 100;
    // A recogniser that has all the audio answers in well under a second; one that has not
    // answered by then never will.
    static constexpr qint64 finishLimitMs = 15'000;
    static constexpr qint64 progressPollMs = 1'000;

    SystemSpeechEngine(std::shared_ptr<OnDeviceSpeechRecognizer> recognizer, QString locale,
                       Scheduler &scheduler = Scheduler::system());
    ~SystemSpeechEngine() override;
    SystemSpeechEngine(const SystemSpeechEngine &) = delete;
    SystemSpeechEngine &operator=(const SystemSpeechEngine &) = delete;

    QString name() const override;
    bool isStreaming() const override { return true; }
    double requiredSampleRate() const override { return 16000; }

    // Permission, locale and model; later calls return at once. While the first download runs,
    // a second call fails with how far it has got.
    QCoro::Task<void> prepare() override;
    QCoro::Task<void> beginUtterance(QStringList contextualStrings) override;
    void append(const AudioChunk &chunk) override;
    QCoro::Task<QString> finishUtterance() override;
    QCoro::Task<void> cancelUtterance() override;

    struct Download;
    struct Transcript;

private:
    QCoro::Task<void> ensurePermission();
    QCoro::Task<void> install();

    struct Utterance {
        std::shared_ptr<OnDeviceSpeechRecognizer::Session> session;
        std::shared_ptr<Transcript> transcript;
    };
    std::optional<Utterance> takeUtterance();

    const std::shared_ptr<OnDeviceSpeechRecognizer> m_recognizer;
    const QString m_locale;
    Scheduler &m_scheduler;
    bool m_prepared = false;
    std::shared_ptr<Download> m_download;
    // Guards m_utterance: append() comes from the audio thread.
    std::mutex m_lock;
    std::optional<Utterance> m_utterance;
};
