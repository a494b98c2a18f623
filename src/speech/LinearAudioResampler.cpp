#include "speech/LinearAudioResampler.h"

#include <algorithm>

namespace LinearAudioResampler {

std::vector<float> resample(const std::vector<float> &samples, double from, double to) {
    // Fused multiply-adds would change the last bit on targets that have them; keep the
    // interpolation the same everywhere.
#pragma clang fp contract(off)
    if (!(from > 0) || !(to > 0))
        return samples;
    if (samples.empty() || from == to)
        return samples;
    const double ratio = to / from;
    const auto inputLength = static_cast<double>(samples.size());
    const double length = ratio * inputLength;
    if (length < 1)
        return {};
    std::vector<float> output(static_cast<size_t>(length));
    const size_t last = samples.size() - 1;
    const float *input = samples.data();
    for (size_t i = 0; i < output.size(); ++i) {
        const double position = double(i) / ratio;
        const size_t i0 = std::min(last, static_cast<size_t>(position));
        const size_t i1 = std::min(last, i0 + 1);
        const auto frac = static_cast<float>(position - double(i0));
        output[i] = (1.0f - frac) * input[i0] + input[i1] * frac;
    }
    return output;
}

} // namespace LinearAudioResampler
