#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Shared by the fuzz targets: turns the fuzzer's bytes into the texts a function takes, and stops
// the run loudly when a property every input must keep is broken.
namespace FuzzInput {

// The bytes as UTF-8 (invalid sequences become replacement characters), cut into fields at the
// record separator 0x1E, so one input can carry a raw text, a reply and vocabulary terms.
inline QStringList fields(const uint8_t *data, size_t size) {
    return QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size)).split(QChar(0x1E));
}

inline QString field(const QStringList &fields, qsizetype index) {
    return index < fields.size() ? fields[index] : QString();
}

inline QByteArray bytes(const uint8_t *data, size_t size) {
    return QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
}

// A private folder for targets that read files, made once per run. The data directory points into
// it, so that nothing a target logs reaches the user's own log.
inline QString scratchDirectory() {
    // In memory where there is such a file system: a run is then not paced by the disk.
    static QTemporaryDir directory(QFileInfo(QStringLiteral("/dev/shm")).isWritable()
                                       ? QStringLiteral("/dev/shm/quorvane-fuzz-XXXXXX")
                                       : QDir::tempPath() + QStringLiteral("/quorvane-fuzz-XXXXXX"));
    static const bool pointed = [] {
        qputenv("QUORVANE_HOME", (directory.path() + QStringLiteral("/home")).toUtf8());
        return true;
    }();
    (void)pointed;
    return directory.path();
}

// A target that cannot set up its input has found nothing, and must not pretend it did.
inline void writeFile(const QString &path, const QByteArray &contents) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size()) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        std::abort();
    }
}

} // namespace FuzzInput

#define FUZZ_REQUIRE(condition)                                                                                        \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "property broken: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                     \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)
