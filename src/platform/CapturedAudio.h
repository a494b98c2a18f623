#pragma once

#include <QString>
#include <vector>

// What every capture does with the samples it delivered: the meter's level and the saved recording.
namespace CapturedAudio {

// Root-mean-square scaled by 12 and capped at 1, so speech fills the meter; 0 for no samples.
float meterLevel(const std::vector<float> &samples);
// Writes the samples as WAV; a failure is logged and loses only the recording.
void save(const QString &path, const std::vector<float> &samples, double sampleRate);

} // namespace CapturedAudio
