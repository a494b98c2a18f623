#include "speech/WavDecoder.h"

#include <QtEndian>
#include <algorithm>
#include <cstring>

namespace WavDecoder {

DecodeError::DecodeError(Case errorCase, QString message)
    : DescribedError(describe(errorCase, message)), m_case(errorCase), m_message(std::move(message)) {}

QString DecodeError::describe(Case errorCase, const QString &message) {
    switch (errorCase) {
    case Case::unsupported:
        return QStringLiteral("unsupported WAV: ") + message;
    case Case::tooShort:
        return QStringLiteral("file is too short to be a WAV");
    case Case::notRIFF:
        return QStringLiteral("missing RIFF header");
    case Case::notWAVE:
        return QStringLiteral("not a WAVE file");
    case Case::noFmtChunk:
        return QStringLiteral("no fmt chunk");
    case Case::noDataChunk:
        return QStringLiteral("no data chunk");
    }
    return {};
}

namespace {

constexpr float kScale = 1.0f / 32768.0f;

bool hasTag(const char *at, const char (&tag)[5]) {
    return std::memcmp(at, tag, 4) == 0;
}
quint16 read16(const char *at) {
    return qFromLittleEndian<quint16>(at);
}
quint32 read32(const char *at) {
    return qFromLittleEndian<quint32>(at);
}
float sampleAt(const char *pcm, qsizetype index) {
    return float(qFromLittleEndian<qint16>(pcm + 2 * index)) * kScale;
}

// The per-channel sums stay in channel order in every branch so that the result equals the plain
// loop bit for bit (starting the stereo sum at the left sample instead of 0 changes nothing: a
// converted integer is never -0). The common layouts get their own loops, which the compiler
// vectorises across frames.
void mixDown(const char *pcm, qsizetype frames, qsizetype channels, float *out) {
    if (channels == 1) {
        for (qsizetype f = 0; f < frames; ++f)
            out[f] = sampleAt(pcm, f);
    } else if (channels == 2) {
        for (qsizetype f = 0; f < frames; ++f)
            out[f] = (sampleAt(pcm, 2 * f) + sampleAt(pcm, 2 * f + 1)) / 2.0f;
    } else {
        const float divisor = float(channels);
        for (qsizetype f = 0; f < frames; ++f) {
            const char *frame = pcm + 2 * f * channels;
            float sum = 0.0f;
            for (qsizetype c = 0; c < channels; ++c)
                sum += sampleAt(frame, c);
            out[f] = sum / divisor;
        }
    }
}

} // namespace

Decoded decode(QByteArrayView data) {
    const char *bytes = data.data();
    const qint64 size = data.size();
    // 45, not 44: a bare canonical header with no samples is refused too.
    if (size < 45)
        throw DecodeError(DecodeError::Case::tooShort);
    if (!hasTag(bytes, "RIFF"))
        throw DecodeError(DecodeError::Case::notRIFF);
    if (!hasTag(bytes + 8, "WAVE"))
        throw DecodeError(DecodeError::Case::notWAVE);

    bool formatSeen = false;
    const char *pcm = nullptr;
    qint64 pcmBytes = 0;
    quint16 channels = 0;
    quint32 sampleRate = 0;
    quint16 bitsPerSample = 0;

    // Chunk sizes are 32-bit, so the offset cannot overflow 64 bits.
    qint64 offset = 12;
    while (offset + 8 <= size) {
        const char *chunk = bytes + offset;
        const quint32 chunkSize = read32(chunk + 4);
        if (hasTag(chunk, "fmt ")) {
            if (offset + 24 > size)
                throw DecodeError(DecodeError::Case::noFmtChunk);
            const quint16 formatTag = read16(chunk + 8);
            if (formatTag != 1)
                throw DecodeError(DecodeError::Case::unsupported,
                                  QStringLiteral("format %1 is not PCM").arg(formatTag));
            channels = read16(chunk + 10);
            sampleRate = read32(chunk + 12);
            bitsPerSample = read16(chunk + 22);
            formatSeen = true;
        } else if (hasTag(chunk, "data")) {
            // A size running past the end is common in files cut short while recording: keep what is there.
            pcm = chunk + 8;
            pcmBytes = std::min<qint64>(chunkSize, size - (offset + 8));
        }
        // The walk goes on after "data": a later data chunk replaces an earlier one.
        offset += 8 + qint64(chunkSize) + (chunkSize & 1);
    }

    if (!formatSeen)
        throw DecodeError(DecodeError::Case::noFmtChunk);
    if (!pcm)
        throw DecodeError(DecodeError::Case::noDataChunk);
    if (bitsPerSample != 16)
        throw DecodeError(DecodeError::Case::unsupported,
                          QStringLiteral("%1-bit samples (only 16-bit supported)").arg(bitsPerSample));

    const qsizetype channelCount = std::max<qsizetype>(channels, 1);
    const qsizetype frames = qsizetype(pcmBytes / 2) / channelCount;
    Decoded decoded;
    // Grown block by block, so that each block's zeroing and its decoding meet in the cache instead
    // of making two passes over the whole output in memory.
    constexpr qsizetype blockFrames = 16384;
    decoded.samples.reserve(size_t(frames));
    for (qsizetype done = 0; done < frames; done += blockFrames) {
        const qsizetype count = std::min(blockFrames, frames - done);
        decoded.samples.resize(size_t(done + count));
        mixDown(pcm + 2 * done * channelCount, count, channelCount, decoded.samples.data() + done);
    }
    decoded.sampleRate = double(sampleRate);
    return decoded;
}

} // namespace WavDecoder
