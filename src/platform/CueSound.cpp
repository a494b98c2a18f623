#include "platform/CueSound.h"

#include "speech/WavEncoder.h"

#include <cmath>
#include <numbers>

namespace {

// Quiet next to speech, so it is heard without startling, and little of it reaches a microphone.
constexpr double kLevel = 0.18;
constexpr double kNoteSeconds = 0.065;
constexpr double kFadeSeconds = 0.012;

void appendNote(std::vector<float> &out, double frequency) {
    const auto length = static_cast<std::size_t>(kNoteSeconds * CueSound::sampleRate);
    const auto fade = static_cast<std::size_t>(kFadeSeconds * CueSound::sampleRate);
    for (std::size_t i = 0; i < length; ++i) {
        // Raised-cosine edges: a tone that starts or stops abruptly clicks.
        const std::size_t edge = std::min(i, length - 1 - i);
        const double gain = edge >= fade ? 1.0 : 0.5 - 0.5 * std::cos(std::numbers::pi * double(edge) / double(fade));
        const double phase = 2 * std::numbers::pi * frequency * double(i) / CueSound::sampleRate;
        out.push_back(static_cast<float>(kLevel * gain * std::sin(phase)));
    }
}

} // namespace

namespace CueSound {

std::vector<float> samples(Cue cue) {
    // A fifth apart: E5 and B5.
    constexpr double low = 659.25;
    constexpr double high = 987.77;
    std::vector<float> out;
    out.reserve(static_cast<std::size_t>(2 * kNoteSeconds * sampleRate));
    appendNote(out, cue == Cue::start ? low : high);
    appendNote(out, cue == Cue::start ? high : low);
    return out;
}

QByteArray wav(Cue cue) {
    return WavEncoder::encode(samples(cue), sampleRate);
}

} // namespace CueSound
