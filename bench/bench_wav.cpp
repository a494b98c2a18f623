// Decodes and resamples one hour of 48 kHz stereo 16-bit audio, generated here, and compares the
// decode with libsndfile's on the same bytes. Prints seconds of audio handled per second of wall time.
#include "speech/LinearAudioResampler.h"
#include "speech/WavDecoder.h"

#include <QByteArray>
#include <QtEndian>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#ifdef QUORVANE_HAVE_SNDFILE
#include <sndfile.h>
#endif

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr double kSeconds = 3600;
constexpr int kRepeats = 7;

QByteArray makeWav() {
    const qint64 frames = qint64(kRate * kSeconds);
    const qint64 dataBytes = frames * kChannels * 2;
    QByteArray wav(44 + dataBytes, Qt::Uninitialized);
    char *h = wav.data();
    std::memcpy(h, "RIFF", 4);
    qToLittleEndian(quint32(36 + dataBytes), h + 4);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    qToLittleEndian(quint32(16), h + 16);
    qToLittleEndian(quint16(1), h + 20);
    qToLittleEndian(quint16(kChannels), h + 22);
    qToLittleEndian(quint32(kRate), h + 24);
    qToLittleEndian(quint32(kRate * kChannels * 2), h + 28);
    qToLittleEndian(quint16(kChannels * 2), h + 32);
    qToLittleEndian(quint16(16), h + 34);
    std::memcpy(h + 36, "data", 4);
    qToLittleEndian(quint32(dataBytes), h + 40);

    // A tone with some noise, so that no stage sees a trivially compressible signal.
    std::vector<qint16> table(480);
    for (size_t i = 0; i < table.size(); ++i)
        table[i] = qint16(12000 * std::sin(2 * M_PI * double(i) / double(table.size())));
    quint32 noise = 12345;
    char *pcm = h + 44;
    for (qint64 f = 0; f < frames; ++f) {
        for (int c = 0; c < kChannels; ++c) {
            noise = noise * 1664525u + 1013904223u;
            const auto value = qint16(table[size_t(f % 480)] / (c + 1) + qint16(noise >> 20) - 2048);
            qToLittleEndian(value, pcm + 2 * (f * kChannels + c));
        }
    }
    return wav;
}

struct Timing {
    double min;
    double median;
};

// The fastest and the median of several runs, in seconds: one run alone says little on a shared machine.
Timing timeRuns(const std::function<void()> &work) {
    std::vector<double> runs;
    for (int i = 0; i < kRepeats; ++i) {
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        runs.push_back(elapsed.count());
    }
    std::sort(runs.begin(), runs.end());
    return {runs.front(), runs[runs.size() / 2]};
}

void print(const char *what, double audioSeconds, const Timing &timing, const char *note) {
    std::printf("%-11s %10.0f s of audio per second (min %.3f s, median %.3f s%s)\n", what,
                audioSeconds / timing.median, timing.min, timing.median, note);
}

#ifdef QUORVANE_HAVE_SNDFILE
struct MemoryFile {
    const QByteArray *bytes;
    sf_count_t position = 0;
};

sf_count_t memoryLength(void *user) {
    return static_cast<MemoryFile *>(user)->bytes->size();
}
sf_count_t memorySeek(sf_count_t offset, int whence, void *user) {
    auto *file = static_cast<MemoryFile *>(user);
    const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? file->position : file->bytes->size();
    file->position = std::clamp<sf_count_t>(base + offset, 0, file->bytes->size());
    return file->position;
}
sf_count_t memoryRead(void *out, sf_count_t count, void *user) {
    auto *file = static_cast<MemoryFile *>(user);
    const sf_count_t n = std::min<sf_count_t>(count, file->bytes->size() - file->position);
    std::memcpy(out, file->bytes->constData() + file->position, size_t(n));
    file->position += n;
    return n;
}
sf_count_t memoryWrite(const void *, sf_count_t, void *) {
    return 0;
}
sf_count_t memoryTell(void *user) {
    return static_cast<MemoryFile *>(user)->position;
}

// The same job as WavDecoder::decode: the whole file to mono floats scaled by 1/32768.
std::vector<float> decodeWithSndfile(const QByteArray &wav) {
    SF_VIRTUAL_IO io{memoryLength, memorySeek, memoryRead, memoryWrite, memoryTell};
    MemoryFile file{&wav};
    SF_INFO info{};
    SNDFILE *handle = sf_open_virtual(&io, SFM_READ, &info, &file);
    if (!handle) {
        std::fprintf(stderr, "libsndfile: %s\n", sf_strerror(nullptr));
        return {};
    }
    const int channels = info.channels;
    std::vector<float> mono(size_t(info.frames));
    std::vector<float> block(size_t(65536 * channels));
    sf_count_t done = 0;
    while (done < info.frames) {
        const sf_count_t got = sf_readf_float(handle, block.data(), 65536);
        if (got <= 0)
            break;
        for (sf_count_t f = 0; f < got; ++f) {
            float sum = 0.0f;
            for (int c = 0; c < channels; ++c)
                sum += block[size_t(f * channels + c)];
            mono[size_t(done + f)] = sum / float(channels);
        }
        done += got;
    }
    sf_close(handle);
    return mono;
}
#endif

} // namespace

int main() {
    std::printf("generating %.0f s of %d Hz %d-channel 16-bit audio...\n", kSeconds, kRate, kChannels);
    const QByteArray wav = makeWav();
    std::printf("file: %.1f MB\n", double(wav.size()) / 1e6);

    WavDecoder::Decoded decoded;
    const Timing decodeTime = timeRuns([&] { decoded = WavDecoder::decode(wav); });
    const double audioSeconds = double(decoded.samples.size()) / decoded.sampleRate;
    print("decode:", audioSeconds, decodeTime, "");

    std::vector<float> resampled;
    const Timing resampleTime =
        timeRuns([&] { resampled = LinearAudioResampler::resample(decoded.samples, decoded.sampleRate, 16000); });
    print("resample:", audioSeconds, resampleTime, ", 48 kHz to 16 kHz");
    resampled = {};

#ifdef QUORVANE_HAVE_SNDFILE
    std::vector<float> reference;
    const Timing sndfileTime = timeRuns([&] { reference = decodeWithSndfile(wav); });
    print("libsndfile:", audioSeconds, sndfileTime, ", same decode");
    std::printf("decoder / libsndfile throughput: %.2f by the fastest runs, %.2f by the medians (%d runs each)\n",
                sndfileTime.min / decodeTime.min, sndfileTime.median / decodeTime.median, kRepeats);
    if (reference != decoded.samples) {
        std::printf("MISMATCH: libsndfile and WavDecoder disagree\n");
        return 1;
    }
    std::printf("samples identical to libsndfile's\n");
#else
    std::printf("libsndfile: not available in this build\n");
#endif
    return 0;
}
