#include "platform/linux/PulseCuePlayer.h"

#include "core/Log.h"
#include "platform/CueSound.h"

#include <pulse/pulseaudio.h>
#include <vector>

namespace {

void signalLoop(void *loop) {
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop *>(loop), 0);
}

} // namespace

// One connection to the sound server with its own event thread, kept between cues so that a cue
// is not late by a connection's set-up.
struct PulseCuePlayer::Connection {
    pa_threaded_mainloop *loop = pa_threaded_mainloop_new();
    pa_context *context = nullptr;

    Connection() = default;
    ~Connection() {
        if (context) {
            pa_threaded_mainloop_lock(loop);
            pa_context_set_state_callback(context, nullptr, nullptr);
            pa_context_disconnect(context);
            pa_context_unref(context);
            pa_threaded_mainloop_unlock(loop);
        }
        pa_threaded_mainloop_stop(loop);
        pa_threaded_mainloop_free(loop);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    bool usable() {
        pa_threaded_mainloop_lock(loop);
        const bool ready = pa_context_get_state(context) == PA_CONTEXT_READY;
        pa_threaded_mainloop_unlock(loop);
        return ready;
    }
    QString lastError() const { return QString::fromUtf8(pa_strerror(pa_context_errno(context))); }

    // Null, with the reason in `error`, when no server answers.
    static std::unique_ptr<Connection> open(const QString &server, QString &error) {
        auto connection = std::make_unique<Connection>();
        pa_threaded_mainloop_set_name(connection->loop, "quorvane.cues.pulse");
        pa_proplist *properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quorvane");
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "com.quorvane.Quorvane");
        // Sound servers and mixers file these with the desktop's event sounds, not with music.
        pa_proplist_sets(properties, PA_PROP_MEDIA_ROLE, "event");
        connection->context =
            pa_context_new_with_proplist(pa_threaded_mainloop_get_api(connection->loop), "Quorvane", properties);
        pa_proplist_free(properties);
        pa_context_set_state_callback(
            connection->context, [](pa_context *, void *l) { signalLoop(l); }, connection->loop);
        const QByteArray address = server.toUtf8();
        // Never start a sound server of our own.
        const bool connecting =
            pa_context_connect(connection->context, server.isEmpty() ? nullptr : address.constData(),
                               PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
        if (connecting && pa_threaded_mainloop_start(connection->loop) >= 0) {
            pa_threaded_mainloop_lock(connection->loop);
            pa_context_state_t state;
            while ((state = pa_context_get_state(connection->context)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state))
                pa_threaded_mainloop_wait(connection->loop);
            pa_threaded_mainloop_unlock(connection->loop);
            if (state == PA_CONTEXT_READY)
                return connection;
        }
        error = connection->lastError();
        return nullptr;
    }

    // Plays the samples to the end on the default output. Runs with the loop unlocked.
    bool play(const std::vector<float> &samples, QString &error) {
        const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(CueSound::sampleRate), 1};
        pa_threaded_mainloop_lock(loop);
        pa_stream *stream = pa_stream_new(context, "Quorvane cue", &format, nullptr);
        if (!stream) {
            error = lastError();
            pa_threaded_mainloop_unlock(loop);
            return false;
        }
        pa_stream_set_state_callback(
            stream, [](pa_stream *, void *l) { signalLoop(l); }, loop);
        pa_stream_set_write_callback(
            stream, [](pa_stream *, size_t, void *l) { signalLoop(l); }, loop);
        bool played = pa_stream_connect_playback(stream, nullptr, nullptr, PA_STREAM_NOFLAGS, nullptr, nullptr) >= 0;
        pa_stream_state_t state = PA_STREAM_UNCONNECTED;
        while (played && (state = pa_stream_get_state(stream)) != PA_STREAM_READY && PA_STREAM_IS_GOOD(state))
            pa_threaded_mainloop_wait(loop);
        played = played && state == PA_STREAM_READY;

        const auto *bytes = reinterpret_cast<const char *>(samples.data());
        const std::size_t total = samples.size() * sizeof(float);
        std::size_t written = 0;
        while (played && written < total) {
            const std::size_t writable = pa_stream_writable_size(stream);
            if (writable == static_cast<std::size_t>(-1) || !PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
                played = false;
            } else if (writable == 0) {
                pa_threaded_mainloop_wait(loop);
            } else {
                const std::size_t chunk = std::min(writable, total - written);
                played = pa_stream_write(stream, bytes + written, chunk, nullptr, 0, PA_SEEK_RELATIVE) >= 0;
                written += chunk;
            }
        }
        if (played) {
            // Until the server has played it all: a cue asked for meanwhile is dropped, not queued.
            pa_operation *draining = pa_stream_drain(
                stream, [](pa_stream *, int, void *l) { signalLoop(l); }, loop);
            while (draining && pa_operation_get_state(draining) == PA_OPERATION_RUNNING &&
                   PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
                pa_threaded_mainloop_wait(loop);
            if (draining)
                pa_operation_unref(draining);
        } else {
            error = lastError();
        }
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
        pa_threaded_mainloop_unlock(loop);
        return played;
    }
};

PulseCuePlayer::PulseCuePlayer(QString server) : m_server(std::move(server)) {}

PulseCuePlayer::~PulseCuePlayer() {
    m_queue.drain();
}

void PulseCuePlayer::play(Cue cue) {
    if (m_busy.exchange(true))
        return;
    m_queue.async([this, cue] {
        playNow(cue);
        m_busy = false;
    });
}

void PulseCuePlayer::playNow(Cue cue) {
    QString error;
    if (m_connection && !m_connection->usable())
        m_connection.reset();
    if (!m_connection)
        m_connection = Connection::open(m_server, error);
    if (m_connection && m_connection->play(CueSound::samples(cue), error)) {
        m_saidUnavailable = false;
        return;
    }
    // The next cue connects afresh: the server may have restarted meanwhile.
    m_connection.reset();
    if (!m_saidUnavailable)
        Log::warn(QStringLiteral("Sounds are silent: could not play them on the sound server: ") + error);
    m_saidUnavailable = true;
}
