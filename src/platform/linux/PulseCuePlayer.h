#pragma once

#include "core/SerialQueue.h"
#include "platform/CuePlayer.h"

#include <QString>
#include <atomic>
#include <memory>

// Plays the cues through the PulseAudio client library (PipeWire's pulse server answers it too).
// Connecting and playing happen on a queue of their own, so play() returns at once; a cue asked
// for while one is still on its way is dropped rather than played late.
class PulseCuePlayer final : public CuePlayer {
public:
    // `server` is written as PULSE_SERVER would be; empty means the user's own server.
    explicit PulseCuePlayer(QString server = {});
    ~PulseCuePlayer() override;

    void play(Cue cue) override;
    // Waits until the cues asked for so far have finished playing.
    void drain() { m_queue.drain(); }

private:
    struct Connection;

    void playNow(Cue cue);

    const QString m_server;
    // Used only on the queue.
    std::unique_ptr<Connection> m_connection;
    bool m_saidUnavailable = false;
    std::atomic<bool> m_busy{false};
    // Last, so its thread is gone before anything it uses.
    SerialQueue m_queue{QStringLiteral("quorvane.cues")};
};
