#include "speech/AudioFeed.h"

#include <algorithm>

void feedInChunks(AsrEngine &engine, const std::vector<float> &samples, double sampleRate) {
    const auto chunkSize = std::max<std::size_t>(1, static_cast<std::size_t>(sampleRate / 10));
    for (std::size_t start = 0; start < samples.size(); start += chunkSize) {
        const std::size_t end = std::min(samples.size(), start + chunkSize);
        AudioChunk chunk;
        chunk.samples.assign(samples.begin() + static_cast<std::ptrdiff_t>(start),
                             samples.begin() + static_cast<std::ptrdiff_t>(end));
        chunk.sampleRate = sampleRate;
        engine.append(chunk);
    }
}
