#pragma once

#include <vector>

// Plain two-point linear interpolation between rates, with no low-pass filter: good enough for
// speech going to a recogniser, and cheap.
namespace LinearAudioResampler {

// Rates in Hz. A rate that is not positive (or NaN), an empty input or equal rates return the
// input unchanged. The last input sample is held at the end.
std::vector<float> resample(const std::vector<float> &samples, double from, double to);

} // namespace LinearAudioResampler
