#include "speech/WavEncoder.h"

#include <QtEndian>
#include <algorithm>
#include <cstring>

namespace WavEncoder {

namespace {

void putTag(char *at, const char (&tag)[5]) {
    std::memcpy(at, tag, 4);
}
void put16(char *at, quint16 value) {
    qToLittleEndian(value, at);
}
void put32(char *at, quint32 value) {
    qToLittleEndian(value, at);
}

qint16 toPcm16(float x) {
    // 32767 on both sides keeps the scale symmetric: -1.0 is -32767, never -32768. The comparison is
    // written so that NaN takes the upper branch.
    const float scaled = x < 1.0f ? std::max(x, -1.0f) * 32767.0f : 32767.0f;
    return static_cast<qint16>(scaled);
}

} // namespace

QByteArray encode(const std::vector<float> &samples, double sampleRate) {
    if (!(sampleRate > -1.0 && sampleRate < 4294967296.0))
        qFatal("WavEncoder: sample rate %f does not fit a 32-bit WAV header", sampleRate);
    const quint64 dataSize = quint64(samples.size()) * 2;
    if (dataSize + 36 > 0xFFFFFFFFull)
        qFatal("WavEncoder: %zu samples do not fit a 32-bit WAV header", samples.size());
    const auto rate = static_cast<quint32>(sampleRate);

    QByteArray wav(qsizetype(44 + dataSize), Qt::Uninitialized);
    char *out = wav.data();
    putTag(out, "RIFF");
    put32(out + 4, quint32(36 + dataSize));
    putTag(out + 8, "WAVE");
    putTag(out + 12, "fmt ");
    put32(out + 16, 16);
    put16(out + 20, 1);
    put16(out + 22, 1);
    put32(out + 24, rate);
    put32(out + 28, rate * 2);
    put16(out + 32, 2);
    put16(out + 34, 16);
    putTag(out + 36, "data");
    put32(out + 40, quint32(dataSize));
    char *pcm = out + 44;
    for (size_t i = 0; i < samples.size(); ++i)
        qToLittleEndian(toPcm16(samples[i]), pcm + 2 * i);
    return wav;
}

} // namespace WavEncoder
