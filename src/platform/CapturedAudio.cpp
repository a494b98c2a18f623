#include "platform/CapturedAudio.h"

#include "core/Log.h"
#include "speech/WavEncoder.h"

#include <QSaveFile>
#include <algorithm>
#include <cmath>

namespace CapturedAudio {

float meterLevel(const std::vector<float> &samples) {
    if (samples.empty())
        return 0;
    double sum = 0;
    for (const float sample : samples)
        sum += double(sample) * sample;
    return float(std::min(std::sqrt(sum / double(samples.size())) * 12.0, 1.0));
}

void save(const QString &path, const std::vector<float> &samples, double sampleRate) {
    // Written aside and renamed into place: a crash leaves the whole recording or none, never a
    // header promising samples that are not there.
    QSaveFile file(path);
    const bool saved = file.open(QIODevice::WriteOnly) &&
                       file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) &&
                       file.write(WavEncoder::encode(samples, sampleRate)) >= 0 && file.commit();
    if (!saved)
        Log::warn(QStringLiteral("Could not save the recording to ") + path);
}

} // namespace CapturedAudio
