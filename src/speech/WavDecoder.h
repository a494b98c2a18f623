#pragma once

#include <QByteArrayView>
#include <QString>
#include <exception>
#include <string>
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

class DecodeError : public std::exception {
public:
    enum class Case { unsupported, tooShort, notRIFF, notWAVE, noFmtChunk, noDataChunk };

    explicit DecodeError(Case errorCase, QString message = {});

    Case errorCase() const { return m_case; }
    // The detail of `unsupported`; empty for the other cases.
    const QString &message() const { return m_message; }
    // The text shown to the user.
    QString errorDescription() const;
    const char *what() const noexcept override { return m_what.c_str(); }

private:
    Case m_case;
    QString m_message;
    std::string m_what;
};

// Decodes a whole file held in memory. Throws DecodeError.
Decoded decode(QByteArrayView data);

} // namespace WavDecoder
