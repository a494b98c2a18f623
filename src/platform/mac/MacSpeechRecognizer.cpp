#include "platform/mac/MacSpeechRecognizer.h"

#include "platform/mac/SpeechBridge.h"

#include <QByteArray>
#include <QList>
#include <memory>

namespace {

using StatusHandler = std::function<void(int32_t status, QString text)>;
using Ending = OnDeviceSpeechRecognizer::Ending;

// Each call's handler travels as the callback's context and is freed by its one call.
void deliverStatus(void *context, int32_t status, const char *text) {
    const std::unique_ptr<StatusHandler> handler(static_cast<StatusHandler *>(context));
    (*handler)(status, QString::fromUtf8(text ? text : ""));
}

void *handlerContext(StatusHandler handler) {
    return new StatusHandler(std::move(handler));
}

void deliverSegment(void *context, const char *text) {
    (*static_cast<std::function<void(QString)> *>(context))(QString::fromUtf8(text ? text : ""));
}

class MacSession final : public OnDeviceSpeechRecognizer::Session {
public:
    MacSession(const QString &locale, const QStringList &contextualStrings, std::function<void(QString)> onSegment)
        : m_onSegment(std::make_unique<std::function<void(QString)>>(std::move(onSegment))) {
        QList<QByteArray> utf8;
        for (const QString &phrase : contextualStrings)
            utf8.append(phrase.toUtf8());
        std::vector<const char *> phrases;
        for (const QByteArray &phrase : utf8)
            phrases.push_back(phrase.constData());
        m_handle = quorvane_sr_session_start(locale.toUtf8().constData(), phrases.data(), int32_t(phrases.size()),
                                             m_onSegment.get(), &deliverSegment);
    }
    ~MacSession() override {
        // The bridge calls no segment handler once released, so the handler can go after it.
        if (m_handle)
            quorvane_sr_session_release(m_handle);
    }
    MacSession(const MacSession &) = delete;
    MacSession &operator=(const MacSession &) = delete;

    void append(const std::vector<float> &samples, double sampleRate) override {
        // The bridge takes a non-null sample pointer, which an empty vector need not have.
        if (m_handle && !samples.empty())
            quorvane_sr_session_append(m_handle, samples.data(), int32_t(samples.size()), sampleRate);
    }

    void finish(std::function<void(Ending)> done) override {
        if (!m_handle) {
            done(Ending{Ending::Kind::failed, {}});
            return;
        }
        quorvane_sr_session_finish(m_handle, handlerContext([done](int32_t status, QString text) {
                                       if (status == 0)
                                           done(Ending{Ending::Kind::finished, {}});
                                       else if (status == 1)
                                           done(Ending{Ending::Kind::noSpeech, {}});
                                       else
                                           done(Ending{Ending::Kind::failed, text});
                                   }),
                                   &deliverStatus);
    }

    void cancel() override {
        if (m_handle)
            quorvane_sr_session_cancel(m_handle);
    }

private:
    std::unique_ptr<std::function<void(QString)>> m_onSegment;
    void *m_handle = nullptr;
};

// Released when the engine lets go of the progress reader.
struct InstallHandle {
    void *handle;
    ~InstallHandle() {
        if (handle)
            quorvane_sr_install_release(handle);
    }
};

} // namespace

OnDeviceSpeechRecognizer::Technology MacSpeechRecognizer::technology() const {
    return quorvane_sr_technology() == 0 ? Technology::speechAnalyzer : Technology::speechRecognizer;
}

OnDeviceSpeechRecognizer::Permission MacSpeechRecognizer::permission() const {
    switch (quorvane_sr_permission()) {
    case 0:
        return Permission::granted;
    case 2:
        return Permission::undetermined;
    default:
        return Permission::denied;
    }
}

void MacSpeechRecognizer::requestPermission(std::function<void(bool granted)> done) {
    quorvane_sr_request_permission(handlerContext([done](int32_t status, QString) { done(status == 0); }),
                                   &deliverStatus);
}

void MacSpeechRecognizer::localeSupport(const QString &locale, std::function<void(LocaleSupport)> done) {
    quorvane_sr_locale_support(locale.toUtf8().constData(), handlerContext([done](int32_t status, QString) {
                                   done(status == 0   ? LocaleSupport::installed
                                        : status == 1 ? LocaleSupport::downloadable
                                                      : LocaleSupport::unsupported);
                               }),
                               &deliverStatus);
}

std::function<double()> MacSpeechRecognizer::install(const QString &locale, std::function<void(QString error)> done) {
    auto handle = std::make_shared<InstallHandle>();
    handle->handle = quorvane_sr_install(
        locale.toUtf8().constData(), handlerContext([done](int32_t status, QString text) {
            if (status == 0)
                done(QString());
            else
                done(text.isEmpty() ? QStringLiteral("this version of macOS offers no speech model downloads") : text);
        }),
        &deliverStatus);
    return [handle] { return handle->handle ? quorvane_sr_install_progress(handle->handle) : 0.0; };
}

std::shared_ptr<OnDeviceSpeechRecognizer::Session>
MacSpeechRecognizer::start(const QString &locale, const QStringList &contextualStrings,
                           std::function<void(QString segment)> onSegment) {
    return std::make_shared<MacSession>(locale, contextualStrings, std::move(onSegment));
}
