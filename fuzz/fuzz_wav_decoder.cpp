// Feeds arbitrary bytes to the WAV decoder: it must either decode or refuse with its own error,
// never read outside the buffer.
#include "speech/LinearAudioResampler.h"
#include "speech/WavDecoder.h"

#include <QByteArray>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An odd first byte puts a RIFF/WAVE preamble in front of the rest, so that most runs reach the
    // chunk walk instead of stopping at the first four bytes.
    QByteArray bytes;
    if (size > 0 && (data[0] & 1))
        bytes = QByteArray("RIFF\0\0\0\0WAVE", 12) +
                QByteArray(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    else
        bytes = QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
    try {
        const WavDecoder::Decoded decoded = WavDecoder::decode(bytes);
        // Every output sample is a mean of 16-bit values scaled by 1/32768.
        for (float sample : decoded.samples) {
            if (!(sample >= -1.0f && sample < 1.0f))
                abort();
        }
        if (decoded.samples.size() > size_t(bytes.size()) / 2)
            abort();
        // The decoded rate is whatever the file claims; the resampler must cope with any of them
        // without blowing up on a tiny input.
        if (decoded.samples.size() <= 64 && decoded.sampleRate <= 192000)
            LinearAudioResampler::resample(decoded.samples, decoded.sampleRate, 16000);
    } catch (const WavDecoder::DecodeError &) {
    }
    return 0;
}
