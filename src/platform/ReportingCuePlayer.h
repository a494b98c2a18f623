#pragma once

#include "platform/CuePlayer.h"

#include <memory>

// The operating-system side of the cues: starts one and returns at once.
class CueOutput {
public:
    virtual ~CueOutput() = default;
    // False when the system could not play it.
    virtual bool play(Cue cue) = 0;
};

// Plays the cues on an output and says in the log when they fall silent: once for each run of
// failures, so a missing sound device does not fill the log, and again if it fails after recovering.
class ReportingCuePlayer final : public CuePlayer {
public:
    explicit ReportingCuePlayer(std::shared_ptr<CueOutput> output);
    void play(Cue cue) override;

private:
    const std::shared_ptr<CueOutput> m_output;
    bool m_silent = false;
};
