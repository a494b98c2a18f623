#pragma once

#include "platform/CuePlayer.h"

#include <QByteArray>
#include <vector>

// The cues are made here rather than shipped as files: two short, soft notes each, rising for the
// start and falling for the stop, with fades so that neither clicks.
namespace CueSound {

// Every sound server and audio framework plays this rate without resampling trouble.
inline constexpr double sampleRate = 48000;

// Mono float samples at sampleRate.
std::vector<float> samples(Cue cue);
// The same sound as a WAV file, for players that take files.
QByteArray wav(Cue cue);

} // namespace CueSound
