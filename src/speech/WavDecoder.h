#pragma once

#include "core/DescribedError.h"

#include <QByteArrayView>
#include <QString>
#include <vector>

// Reads RIFF/WAVE files of 16-bit integer PCM into mono floats. Deliberately narrow: every other
// file is refused with one precise error.
namespace WavDecoder {

struct Decoded {
    // Mono, in [-1, 1): each channel is scaled by 1/32768 and the channels are averaged.
    std::vector<float> samples;
    // Hz, as declared by the format chunk.
    double sampleRate = 0;

    bool operator==(const Decoded &) const = default;
};

class DecodeError : public DescribedError {
public:
    enum class Case { unsupported, tooShort, notRIFF, notWAVE, noFmtChunk, noDataChunk };

    explicit DecodeError(Case errorCase, QString message = {});

    Case errorCase() const { return m_case; }
    // The detail of `unsupported`; empty for the other cases.
    const QString &message() const { return m_message; }

private:
    static QString describe(Case errorCase, const QString &message);

    Case m_case;
    QString m_message;
};

// Decodes a whole file held in memory. Throws DecodeError.
Decoded decode(QByteArrayView data);

} // namespace WavDecoder
