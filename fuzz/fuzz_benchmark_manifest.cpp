// A benchmark manifest comes with a downloaded dataset. Any file either loads as a dataset whose
// every clip can be played, or is refused with at least one problem to show.
#include "FuzzInput.h"
#include "benchmark/BenchmarkManifest.h"

#include <QFileInfo>
#include <QSet>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const QString folder = FuzzInput::scratchDirectory();
    static const QString path = folder + QStringLiteral("/manifest.json");
    // Seeds name this recording, so that clips can pass the existence check.
    static const bool recording = [] {
        FuzzInput::writeFile(folder + QStringLiteral("/clip.wav"), QByteArray("RIFF"));
        return true;
    }();
    (void)recording;
    FuzzInput::writeFile(path, FuzzInput::bytes(data, size));
    try {
        const BenchmarkManifest manifest = BenchmarkManifest::load(path);
        FUZZ_REQUIRE(!manifest.name.isEmpty() && !manifest.clips.isEmpty());
        QSet<QString> ids;
        for (const BenchmarkClip &clip : manifest.clips) {
            FUZZ_REQUIRE(!clip.id.isEmpty() && !ids.contains(clip.id));
            ids.insert(clip.id);
            FUZZ_REQUIRE(QFileInfo(clip.audioPath).isFile());
        }
    } catch (const BenchmarkManifest::Invalid &invalid) {
        FUZZ_REQUIRE(!invalid.problems().isEmpty());
        for (const QString &problem : invalid.problems())
            FUZZ_REQUIRE(!problem.isEmpty());
    }
    return 0;
}
