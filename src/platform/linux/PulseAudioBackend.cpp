#include "platform/linux/PulseAudioBackend.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"

#include <atomic>
#include <cstring>
#include <pulse/pulseaudio.h>
#include <stdexcept>
#include <vector>

namespace {

struct SourceRow {
    QString name;
    QString driver;
    pa_sample_spec format{};
};

struct ServerState {
    QString defaultSource;
    std::vector<SourceRow> sources;
};

// Each fragment is about this long, so the first audio arrives within a few tens of milliseconds.
constexpr pa_usec_t fragmentUsec = 20'000;

bool isEchoCancel(const SourceRow &source) {
    return source.name.contains(QStringLiteral("echo-cancel")) ||
           source.driver.contains(QStringLiteral("module-echo-cancel"));
}

} // namespace

// One connection to the sound server with its own event thread; everything created on it is torn
// down with it, and no callback runs once it is destroyed.
struct PulseAudioBackend::Session {
    pa_threaded_mainloop *loop = nullptr;
    pa_context *context = nullptr;
    pa_stream *stream = nullptr;
    BufferHandler onBuffer;
    // Kept by the state callbacks, so asking does not wait for the loop, which may be inside the
    // buffer handler waiting for the one asking.
    std::atomic<bool> streaming{false};

    Session() : loop(pa_threaded_mainloop_new()) {}
    ~Session() {
        if (context) {
            pa_threaded_mainloop_lock(loop);
            if (stream) {
                pa_stream_set_read_callback(stream, nullptr, nullptr);
                pa_stream_set_state_callback(stream, nullptr, nullptr);
                pa_stream_disconnect(stream);
                pa_stream_unref(stream);
            }
            pa_context_set_state_callback(context, nullptr, nullptr);
            pa_context_disconnect(context);
            pa_context_unref(context);
            pa_threaded_mainloop_unlock(loop);
        }
        pa_threaded_mainloop_stop(loop);
        pa_threaded_mainloop_free(loop);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    QString lastError() const { return QString::fromUtf8(pa_strerror(pa_context_errno(context))); }

    static void signal(void *loop) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop *>(loop), 0); }

    // Throws QuorvaneError(noAudioInput) when no server answers.
    static std::unique_ptr<Session> connect(const QString &server) {
        auto session = std::make_unique<Session>();
        pa_threaded_mainloop_set_name(session->loop, "quorvane.audio");
        pa_proplist *properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quorvane");
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "com.quorvane.Quorvane");
        session->context =
            pa_context_new_with_proplist(pa_threaded_mainloop_get_api(session->loop), "Quorvane", properties);
        pa_proplist_free(properties);
        pa_context_set_state_callback(
            session->context,
            [](pa_context *c, void *self) {
                auto *me = static_cast<Session *>(self);
                if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(c)))
                    me->streaming = false;
                signal(me->loop);
            },
            session.get());
        const QByteArray address = server.toUtf8();
        // Never start a sound server of our own.
        const bool connecting = pa_context_connect(session->context, server.isEmpty() ? nullptr : address.constData(),
                                                   PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
        if (connecting && pa_threaded_mainloop_start(session->loop) >= 0) {
            pa_threaded_mainloop_lock(session->loop);
            pa_context_state_t state;
            while ((state = pa_context_get_state(session->context)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state))
                pa_threaded_mainloop_wait(session->loop);
            pa_threaded_mainloop_unlock(session->loop);
            if (state == PA_CONTEXT_READY)
                return session;
        }
        throw QuorvaneError(QuorvaneError::Case::noAudioInput,
                            QStringLiteral("could not reach the sound server: ") + session->lastError());
    }

    // Runs with the loop locked.
    void await(pa_operation *operation) {
        if (!operation)
            return;
        while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
            pa_threaded_mainloop_wait(loop);
        pa_operation_unref(operation);
    }

    ServerState serverState() {
        struct Query {
            pa_threaded_mainloop *loop;
            ServerState state;
        } query{loop, {}};
        pa_threaded_mainloop_lock(loop);
        await(pa_context_get_server_info(
            context,
            [](pa_context *, const pa_server_info *info, void *data) {
                auto *q = static_cast<Query *>(data);
                if (info && info->default_source_name)
                    q->state.defaultSource = QString::fromUtf8(info->default_source_name);
                signal(q->loop);
            },
            &query));
        await(pa_context_get_source_info_list(
            context,
            [](pa_context *, const pa_source_info *info, int last, void *data) {
                auto *q = static_cast<Query *>(data);
                if (!last && info)
                    q->state.sources.push_back({QString::fromUtf8(info->name),
                                                QString::fromUtf8(info->driver ? info->driver : ""),
                                                info->sample_spec});
                signal(q->loop);
            },
            &query));
        pa_threaded_mainloop_unlock(loop);
        return query.state;
    }

    // Runs on the loop's thread with the loop locked; hands each fragment on as it comes.
    static void read(pa_stream *stream, size_t, void *self) {
        auto *session = static_cast<Session *>(self);
        while (pa_stream_readable_size(stream) > 0) {
            const void *data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
                return;
            // No data with a size is a hole: nothing was recorded for that stretch.
            std::vector<float> samples(data ? bytes / sizeof(float) : 0);
            if (data)
                std::memcpy(samples.data(), data, samples.size() * sizeof(float));
            pa_stream_drop(stream);
            if (!samples.empty())
                session->onBuffer(std::move(samples));
        }
    }

    // Throws when the stream cannot be made or does not start.
    void record(double rate, const QString &source, bool pinned) {
        const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, uint32_t(rate), 1};
        if (rate != double(format.rate) || !pa_sample_spec_valid(&format))
            throw QuorvaneError(QuorvaneError::Case::audioFormatUnsupported,
                                QStringLiteral("the sound server cannot record at %1 Hz").arg(rate));
        pa_channel_map mono;
        pa_channel_map_init_mono(&mono);
        pa_threaded_mainloop_lock(loop);
        stream = pa_stream_new(context, "Dictation", &format, &mono);
        if (!stream) {
            const QString reason = lastError();
            pa_threaded_mainloop_unlock(loop);
            throw std::runtime_error(("could not create the recording stream: " + reason).toStdString());
        }
        pa_stream_set_state_callback(
            stream,
            [](pa_stream *s, void *self) {
                auto *me = static_cast<Session *>(self);
                me->streaming = pa_stream_get_state(s) == PA_STREAM_READY;
                signal(me->loop);
            },
            this);
        pa_stream_set_read_callback(stream, &Session::read, this);
        pa_buffer_attr attributes;
        attributes.maxlength = uint32_t(-1);
        attributes.tlength = uint32_t(-1);
        attributes.prebuf = uint32_t(-1);
        attributes.minreq = uint32_t(-1);
        attributes.fragsize = uint32_t(pa_usec_to_bytes(fragmentUsec, &format));
        // A chosen echo-cancelling source stays put: moving the stream elsewhere would quietly
        // drop the noise reduction it was picked for.
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | (pinned ? PA_STREAM_DONT_MOVE : 0));
        const QByteArray device = source.toUtf8();
        pa_stream_state_t state = PA_STREAM_FAILED;
        if (pa_stream_connect_record(stream, source.isEmpty() ? nullptr : device.constData(), &attributes, flags) >=
            0) {
            while ((state = pa_stream_get_state(stream)) != PA_STREAM_READY && PA_STREAM_IS_GOOD(state))
                pa_threaded_mainloop_wait(loop);
        }
        const QString reason = lastError();
        pa_threaded_mainloop_unlock(loop);
        if (state != PA_STREAM_READY)
            throw std::runtime_error(("the microphone stream did not start: " + reason).toStdString());
    }
};

PulseAudioBackend::PulseAudioBackend(QString server) : m_server(std::move(server)) {}

PulseAudioBackend::~PulseAudioBackend() {
    close();
}

bool PulseAudioBackend::permissionGranted() {
    try {
        Session::connect(m_server);
        return true;
    } catch (const QuorvaneError &) {
        return false;
    }
}

bool PulseAudioBackend::voiceProcessingEnabled() {
    std::lock_guard lock(m_lock);
    return m_session ? m_onEchoCancel : m_voiceProcessingRequested;
}

void PulseAudioBackend::setVoiceProcessingEnabled(bool on) {
    std::lock_guard lock(m_lock);
    m_voiceProcessingRequested = on;
}

AudioBackend::InputFormat PulseAudioBackend::inputFormat() {
    try {
        const ServerState state = Session::connect(m_server)->serverState();
        for (const SourceRow &source : state.sources)
            if (source.name == state.defaultSource)
                return {double(source.format.rate), int(source.format.channels)};
    } catch (const QuorvaneError &) {
    }
    return {};
}

void PulseAudioBackend::open(double targetRate, BufferHandler onBuffer, ErrorHandler) {
    close();
    bool wanted = false;
    {
        std::lock_guard lock(m_lock);
        wanted = m_voiceProcessingRequested;
    }
    auto session = Session::connect(m_server);
    QString echoCancel;
    if (wanted) {
        for (const SourceRow &source : session->serverState().sources)
            if (isEchoCancel(source) && echoCancel.isEmpty())
                echoCancel = source.name;
    }
    session->onBuffer = std::move(onBuffer);
    session->record(targetRate, echoCancel, !echoCancel.isEmpty());

    std::lock_guard lock(m_lock);
    m_session = std::move(session);
    m_onEchoCancel = !echoCancel.isEmpty();
    if (!echoCancel.isEmpty()) {
        m_saidNoEchoCancel = false;
    } else if (wanted && !m_saidNoEchoCancel) {
        m_saidNoEchoCancel = true;
        Log::info(QStringLiteral("The sound server offers no echo-cancelling microphone, so noise reduction is off; "
                                 "recording the default input as it is."));
    }
}

void PulseAudioBackend::close() {
    std::unique_ptr<Session> session;
    {
        std::lock_guard lock(m_lock);
        session = std::move(m_session);
        m_onEchoCancel = false;
    }
    // Ended outside the lock: the buffer handler, which the ending waits for, may call into us.
    session.reset();
}

bool PulseAudioBackend::isRunning() {
    std::lock_guard lock(m_lock);
    return m_session && m_session->streaming;
}
