#pragma once

#include "speech/OnDeviceSpeechRecognizer.h"

#include <QList>
#include <atomic>
#include <optional>

// An on-device recogniser whose answers a test sets. It keeps every session it starts with what the
// session was given; a session ends with `ending` at once when one is set, else when the test says.
class ScriptedSpeechRecognizer final : public OnDeviceSpeechRecognizer {
public:
    struct ScriptedSession final : Session {
        QString locale;
        QStringList contextualStrings;
        std::function<void(QString)> onSegment;
        std::optional<Ending> ending;
        std::vector<float> samples;
        QList<double> rates;
        std::function<void(Ending)> done;
        bool finished = false;
        bool cancelled = false;

        void append(const std::vector<float> &chunk, double sampleRate) override {
            samples.insert(samples.end(), chunk.begin(), chunk.end());
            rates.append(sampleRate);
        }
        void finish(std::function<void(Ending)> whenDone) override {
            finished = true;
            done = std::move(whenDone);
            if (ending)
                done(*ending);
        }
        void cancel() override { cancelled = true; }
        void say(const QString &segment) {
            if (!cancelled)
                onSegment(segment);
        }
    };

    Technology technology() const override { return tech; }
    Permission permission() const override { return userPermission; }
    void requestPermission(std::function<void(bool)> done) override {
        ++permissionRequests;
        done(grantsOnRequest);
    }
    void localeSupport(const QString &locale, std::function<void(LocaleSupport)> done) override {
        askedLocales.append(locale);
        done(support);
    }
    std::function<double()> install(const QString &, std::function<void(QString)> done) override {
        ++installs;
        installDone = std::move(done);
        if (installError)
            installDone(*installError);
        return [this] { return progress.load(); };
    }
    std::shared_ptr<Session> start(const QString &locale, const QStringList &contextualStrings,
                                   std::function<void(QString)> onSegment) override {
        auto session = std::make_shared<ScriptedSession>();
        session->locale = locale;
        session->contextualStrings = contextualStrings;
        session->onSegment = std::move(onSegment);
        session->ending = nextEnding;
        sessions.append(session);
        return session;
    }

    Technology tech = Technology::speechAnalyzer;
    Permission userPermission = Permission::granted;
    bool grantsOnRequest = true;
    LocaleSupport support = LocaleSupport::installed;
    // Set: the download ends at once with this (empty for success). Unset: when the test calls installDone.
    std::optional<QString> installError = QString();
    std::atomic<double> progress{0};
    std::optional<Ending> nextEnding = Ending{};

    int permissionRequests = 0;
    int installs = 0;
    QStringList askedLocales;
    std::function<void(QString)> installDone;
    QList<std::shared_ptr<ScriptedSession>> sessions;
};
