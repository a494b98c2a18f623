#pragma once

#include "platform/ReportingCuePlayer.h"

#include <memory>

// Plays the cues with NSSound from WAV data made in memory; NSSound plays asynchronously.
class MacCuePlayer final : public CueOutput {
public:
    MacCuePlayer();
    ~MacCuePlayer() override;

    // On the main thread.
    bool play(Cue cue) override;

private:
    struct Sounds;
    std::unique_ptr<Sounds> m_sounds;
};
