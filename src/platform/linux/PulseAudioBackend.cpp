#include "platform/linux/PulseAudioBackend.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <pulse/pulseaudio.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
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

using Clock = std::chrono::steady_clock;

// While recording, each fragment is about this long, so audio reaches the engine within a few tens
// of milliseconds.
constexpr pa_usec_t listeningFragmentUsec = 20'000;
// While only warm, audio feeds the pre-roll and may come late: the server is asked for fragments
// this long, and we look at most this often, since another program can keep the source at 10 ms
// and a wakeup for each of its fragments costs more CPU than all our idle work together.
constexpr pa_usec_t warmFragmentUsec = 250'000;
constexpr auto warmPace = std::chrono::milliseconds(warmFragmentUsec / 1000);

// pa_threaded_mainloop's contract (one lock, held by the loop's thread except while it polls; wait
// and signal on one condition) plus a pace it cannot offer: while paced, the thread sleeps until
// warmPace has passed since it last woke, and whatever the server sent meanwhile is handled in one
// go. Unpacing ends a sleep at once.
class PacedLoop {
public:
    PacedLoop() : m_loop(pa_mainloop_new()), m_resume(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        pa_mainloop_set_poll_func(m_loop, &PacedLoop::poll, this);
    }
    ~PacedLoop() {
        stop();
        pa_mainloop_free(m_loop);
        close(m_resume);
    }
    PacedLoop(const PacedLoop &) = delete;
    PacedLoop &operator=(const PacedLoop &) = delete;

    pa_mainloop_api *api() { return pa_mainloop_get_api(m_loop); }
    void start() {
        m_thread = std::thread([this] {
            pthread_setname_np(pthread_self(), "quorvane.audio");
            std::lock_guard held(m_mutex);
            pa_mainloop_run(m_loop, nullptr);
        });
    }
    void stop() {
        if (!m_thread.joinable())
            return;
        {
            std::lock_guard held(m_mutex);
            pa_mainloop_quit(m_loop, 0);
        }
        resume();
        m_thread.join();
    }
    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }
    // With the lock held, never on the loop's thread.
    void wait() { m_condition.wait(m_mutex); }
    void signal() { m_condition.notify_all(); }
    bool paced() const { return m_paced; }
    void setPaced(bool paced) {
        m_paced = paced;
        if (!paced)
            resume();
    }

private:
    void resume() {
        const quint64 one = 1;
        [[maybe_unused]] const auto written = write(m_resume, &one, sizeof one);
    }

    static int poll(pollfd *fds, unsigned long count, int timeoutMs, void *self) {
        auto *me = static_cast<PacedLoop *>(self);
        me->m_mutex.unlock();
        if (me->m_paced && timeoutMs != 0) {
            const auto now = Clock::now();
            auto pause = std::chrono::ceil<std::chrono::milliseconds>(me->m_woke + warmPace - now).count();
            if (timeoutMs > 0)
                pause = std::min<decltype(pause)>(pause, timeoutMs);
            if (pause > 0) {
                pollfd resumed{me->m_resume, POLLIN, 0};
                if (::poll(&resumed, 1, int(pause)) > 0) {
                    quint64 count_ = 0;
                    [[maybe_unused]] const auto read_ = read(me->m_resume, &count_, sizeof count_);
                }
                if (timeoutMs > 0) {
                    const auto slept = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - now);
                    timeoutMs = std::max(0, timeoutMs - int(slept.count()));
                }
            }
        }
        const int ready = ::poll(fds, nfds_t(count), timeoutMs);
        me->m_woke = Clock::now();
        me->m_mutex.lock();
        return ready;
    }

    pa_mainloop *const m_loop;
    const int m_resume;
    std::mutex m_mutex;
    std::condition_variable_any m_condition;
    std::thread m_thread;
    std::atomic<bool> m_paced{false};
    // Read and written only on the loop's thread.
    Clock::time_point m_woke;
};

bool isEchoCancel(const SourceRow &source) {
    return source.name.contains(QStringLiteral("echo-cancel")) ||
           source.driver.contains(QStringLiteral("module-echo-cancel"));
}

} // namespace

// One connection to the sound server with its own event thread; everything created on it is torn
// down with it, and no callback runs once it is destroyed.
struct PulseAudioBackend::Session {
    PacedLoop loop;
    pa_context *context = nullptr;
    pa_stream *stream = nullptr;
    BufferHandler onBuffer;
    pa_defer_event *drainLater = nullptr;
    // Both guarded by the loop's lock. Until the first audio arrives nothing is paced, so a recording
    // that starts right after warm-up finds the stream already delivering.
    bool isListening = true;
    bool heardOnce = false;
    // Kept by the state callbacks, so asking does not wait for the loop, which may be inside the
    // buffer handler waiting for the one asking.
    std::atomic<bool> streaming{false};

    Session() = default;
    ~Session() {
        if (context) {
            loop.lock();
            if (stream) {
                pa_stream_set_read_callback(stream, nullptr, nullptr);
                pa_stream_set_state_callback(stream, nullptr, nullptr);
                pa_stream_disconnect(stream);
                pa_stream_unref(stream);
            }
            if (drainLater)
                loop.api()->defer_free(drainLater);
            pa_context_set_state_callback(context, nullptr, nullptr);
            pa_context_disconnect(context);
            pa_context_unref(context);
            loop.unlock();
        }
        loop.stop();
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    QString lastError() const { return QString::fromUtf8(pa_strerror(pa_context_errno(context))); }

    static void signal(void *loop) { static_cast<PacedLoop *>(loop)->signal(); }

    // Throws QuorvaneError(noAudioInput) when no server answers.
    static std::unique_ptr<Session> connect(const QString &server) {
        auto session = std::make_unique<Session>();
        pa_proplist *properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quorvane");
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "com.quorvane.Quorvane");
        session->context = pa_context_new_with_proplist(session->loop.api(), "Quorvane", properties);
        pa_proplist_free(properties);
        pa_context_set_state_callback(
            session->context,
            [](pa_context *c, void *self) {
                auto *me = static_cast<Session *>(self);
                if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(c)))
                    me->streaming = false;
                me->loop.signal();
            },
            session.get());
        const QByteArray address = server.toUtf8();
        // Never start a sound server of our own.
        const bool connecting = pa_context_connect(session->context, server.isEmpty() ? nullptr : address.constData(),
                                                   PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
        if (connecting) {
            session->loop.start();
            session->loop.lock();
            pa_context_state_t state;
            while ((state = pa_context_get_state(session->context)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state))
                session->loop.wait();
            session->loop.unlock();
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
            loop.wait();
        pa_operation_unref(operation);
    }

    ServerState serverState() {
        struct Query {
            PacedLoop *loop;
            ServerState state;
        } query{&loop, {}};
        loop.lock();
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
        loop.unlock();
        return query.state;
    }

    // Runs on the loop's thread with the loop locked, once per fragment received. While paced, the
    // fragments of one wakeup are collected and handed on as one buffer when they have all been
    // received, so a batch costs one pass through the pre-roll.
    static void read(pa_stream *stream, size_t, void *self) {
        auto *session = static_cast<Session *>(self);
        if (!session->loop.paced()) {
            drain(stream, session);
            return;
        }
        if (!session->drainLater) {
            pa_mainloop_api *api = session->loop.api();
            session->drainLater = api->defer_new(
                api,
                [](pa_mainloop_api *a, pa_defer_event *event, void *me) {
                    a->defer_enable(event, 0);
                    auto *owner = static_cast<Session *>(me);
                    if (owner->stream)
                        drain(owner->stream, owner);
                },
                session);
        }
        session->loop.api()->defer_enable(session->drainLater, 1);
    }

    static void drain(pa_stream *stream, Session *session) {
        std::vector<float> samples;
        while (pa_stream_readable_size(stream) > 0) {
            const void *data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0)
                break;
            // No data with a size is a hole: nothing was recorded for that stretch.
            if (data) {
                const auto *fragment = static_cast<const float *>(data);
                samples.insert(samples.end(), fragment, fragment + bytes / sizeof(float));
            }
            pa_stream_drop(stream);
        }
        if (!samples.empty() && !std::exchange(session->heardOnce, true))
            session->loop.setPaced(!session->isListening);
        if (!samples.empty())
            session->onBuffer(std::move(samples));
    }

    static pa_buffer_attr bufferAttributes(bool listening, const pa_sample_spec &format) {
        pa_buffer_attr attributes;
        attributes.maxlength = uint32_t(-1);
        attributes.tlength = uint32_t(-1);
        attributes.prebuf = uint32_t(-1);
        attributes.minreq = uint32_t(-1);
        attributes.fragsize = uint32_t(pa_usec_to_bytes(listening ? listeningFragmentUsec : warmFragmentUsec, &format));
        return attributes;
    }

    // Not awaited: the stream keeps delivering while the server adjusts.
    void setListening(bool listening) {
        loop.lock();
        isListening = listening;
        loop.setPaced(!listening && heardOnce);
        if (stream && pa_stream_get_state(stream) == PA_STREAM_READY) {
            const pa_buffer_attr attributes = bufferAttributes(listening, *pa_stream_get_sample_spec(stream));
            if (pa_operation *operation = pa_stream_set_buffer_attr(stream, &attributes, nullptr, nullptr))
                pa_operation_unref(operation);
        }
        loop.unlock();
    }

    // Throws when the stream cannot be made or does not start.
    void record(double rate, const QString &source, bool pinned, bool listening) {
        const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, uint32_t(rate), 1};
        if (rate != double(format.rate) || !pa_sample_spec_valid(&format))
            throw QuorvaneError(QuorvaneError::Case::audioFormatUnsupported,
                                QStringLiteral("the sound server cannot record at %1 Hz").arg(rate));
        pa_channel_map mono;
        pa_channel_map_init_mono(&mono);
        loop.lock();
        isListening = listening;
        stream = pa_stream_new(context, "Dictation", &format, &mono);
        if (!stream) {
            const QString reason = lastError();
            loop.unlock();
            throw std::runtime_error(("could not create the recording stream: " + reason).toStdString());
        }
        pa_stream_set_state_callback(
            stream,
            [](pa_stream *s, void *self) {
                auto *me = static_cast<Session *>(self);
                me->streaming = pa_stream_get_state(s) == PA_STREAM_READY;
                me->loop.signal();
            },
            this);
        pa_stream_set_read_callback(stream, &Session::read, this);
        const pa_buffer_attr attributes = bufferAttributes(listening, format);
        // A chosen echo-cancelling source stays put: moving the stream elsewhere would quietly
        // drop the noise reduction it was picked for.
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | (pinned ? PA_STREAM_DONT_MOVE : 0));
        const QByteArray device = source.toUtf8();
        pa_stream_state_t state = PA_STREAM_FAILED;
        if (pa_stream_connect_record(stream, source.isEmpty() ? nullptr : device.constData(), &attributes, flags) >=
            0) {
            while ((state = pa_stream_get_state(stream)) != PA_STREAM_READY && PA_STREAM_IS_GOOD(state))
                loop.wait();
        }
        const QString reason = lastError();
        loop.unlock();
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
    bool listening = false;
    {
        std::lock_guard lock(m_lock);
        wanted = m_voiceProcessingRequested;
        listening = m_listening;
    }
    auto session = Session::connect(m_server);
    QString echoCancel;
    if (wanted) {
        for (const SourceRow &source : session->serverState().sources)
            if (isEchoCancel(source) && echoCancel.isEmpty())
                echoCancel = source.name;
    }
    session->onBuffer = std::move(onBuffer);
    session->record(targetRate, echoCancel, !echoCancel.isEmpty(), listening);

    std::lock_guard lock(m_lock);
    m_session = std::move(session);
    if (m_listening != listening)
        m_session->setListening(m_listening);
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

void PulseAudioBackend::setListening(bool listening) {
    std::lock_guard lock(m_lock);
    m_listening = listening;
    if (m_session)
        m_session->setListening(listening);
}
