#pragma once

#include <QByteArray>
#include <vector>

// The app's only WAV writer: a canonical 44-byte header and 16-bit mono PCM.
namespace WavEncoder {

// Samples are scaled by 32767 and clamped to [-32767, 32767]; NaN becomes 32767. A rate that is not
// a 32-bit unsigned integer, or more samples than a WAV size field can describe, is a programming
// error and aborts.
QByteArray encode(const std::vector<float> &samples, double sampleRate);

} // namespace WavEncoder
