#pragma once

#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

// The operating system's on-device speech recogniser, reduced to what an engine needs. The desktop
// implementation only forwards to the platform's framework; every decision, limit and message
// lives with the engine. Callbacks may arrive on any thread.
class OnDeviceSpeechRecognizer {
public:
    // The newer analyser where the system has it, else the older recogniser kept on the device.
    enum class Technology { speechAnalyzer, speechRecognizer };
    enum class Permission { granted, denied, undetermined };
    enum class LocaleSupport { installed, downloadable, unsupported };

    // How an utterance ended once its audio was complete.
    struct Ending {
        enum class Kind { finished, noSpeech, failed };
        Kind kind = Kind::finished;
        // The platform's description of a failure.
        QString error;
    };

    // One utterance. Calls after finish() or cancel() are ignored.
    class Session {
    public:
        virtual ~Session() = default;
        // Mono samples at `sampleRate`; any thread.
        virtual void append(const std::vector<float> &samples, double sampleRate) = 0;
        // No more audio. `done` is called exactly once, after the last segment.
        virtual void finish(std::function<void(Ending)> done) = 0;
        // Drops the utterance: no further segments.
        virtual void cancel() = 0;
    };

    virtual ~OnDeviceSpeechRecognizer() = default;

    virtual Technology technology() const = 0;
    // Whether the user lets this application use speech recognition.
    virtual Permission permission() const = 0;
    virtual void requestPermission(std::function<void(bool granted)> done) = 0;
    virtual void localeSupport(const QString &locale, std::function<void(LocaleSupport)> done) = 0;
    // Downloads and installs the model for `locale`; `done` gets the failure, empty on success.
    // The returned function tells how far it has got, 0 to 1, from any thread.
    virtual std::function<double()> install(const QString &locale, std::function<void(QString error)> done) = 0;
    // `onSegment` receives each final piece of the transcript, in order.
    virtual std::shared_ptr<Session> start(const QString &locale, const QStringList &contextualStrings,
                                           std::function<void(QString segment)> onSegment) = 0;
};
