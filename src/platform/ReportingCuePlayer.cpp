#include "platform/ReportingCuePlayer.h"

#include "core/Log.h"

ReportingCuePlayer::ReportingCuePlayer(std::shared_ptr<CueOutput> output) : m_output(std::move(output)) {}

void ReportingCuePlayer::play(Cue cue) {
    const bool played = m_output->play(cue);
    if (!played && !m_silent)
        Log::warn(QStringLiteral("Sounds are silent: the system could not play them."));
    m_silent = !played;
}
