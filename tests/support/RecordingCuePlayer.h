#pragma once

#include "platform/CuePlayer.h"

#include <QList>
#include <functional>

// Remembers the cues it was asked to play, in order.
class RecordingCuePlayer final : public CuePlayer {
public:
    void play(Cue cue) override {
        played.append(cue);
        if (onPlay)
            onPlay(cue);
    }

    QList<Cue> played;
    // Called as each cue is asked for, to look at the world at that moment.
    std::function<void(Cue)> onPlay;
};
