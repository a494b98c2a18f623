#pragma once

// The two sounds that frame a recording.
enum class Cue {
    start,
    stop,
};

// Plays a cue without ever making the caller wait: the caller is the key path on the main thread.
// A cue that cannot be played is dropped; a player says why in the log, once.
class CuePlayer {
public:
    virtual ~CuePlayer() = default;
    virtual void play(Cue cue) = 0;
};

// Where the desktop has no way to play sound.
class SilentCuePlayer final : public CuePlayer {
public:
    void play(Cue) override {}
};
