#pragma once

#include <vector>

// One piece of captured audio. Inside the app audio is always mono 32-bit float; 16-bit integers
// exist only at the WAV boundary.
struct AudioChunk {
    std::vector<float> samples;
    // Hz.
    double sampleRate = 0;

    bool operator==(const AudioChunk &) const = default;
};
