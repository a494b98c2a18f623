// The user's vocabulary.txt and the learned.json beside it are plain files anyone can edit. Whatever
// they hold, the terms offered are clean, and a loaded model keeps learning and saves what it loaded.
#include "FuzzInput.h"
#include "core/Scheduler.h"
#include "core/Text.h"
#include "history/Store.h"
#include "speech/Learner.h"

#include <QDir>
#include <QSet>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const QString root = FuzzInput::scratchDirectory() + QStringLiteral("/vocabulary");
    static const QString learned = root + QStringLiteral("/learned.json");
    QDir().mkpath(root);
    // Fields: the vocabulary file, the learned model, then a dictated text.
    const QList<QByteArray> fields = FuzzInput::bytes(data, size).split('\x1e');
    const auto field = [&fields](qsizetype index) { return index < fields.size() ? fields[index] : QByteArray(); };

    Store store(root);
    FuzzInput::writeFile(store.vocabularyPath(), field(0));
    const QStringList terms = store.vocabulary();
    FUZZ_REQUIRE(QSet<QString>(terms.cbegin(), terms.cend()).size() == terms.size());
    for (const QString &term : terms) {
        FUZZ_REQUIRE(!term.isEmpty() && term == Text::trimmed(term) && !term.startsWith(QLatin1Char('#')));
        FUZZ_REQUIRE(!term.contains(QLatin1Char('\n')));
    }

    FuzzInput::writeFile(learned, field(1));
    ManualScheduler scheduler;
    Learner learner(learned, scheduler);
    FUZZ_REQUIRE(Learner::Model::fromJson(learner.model().toJson()) == learner.model());
    learner.ingest(QString::fromUtf8(field(2)));
    FUZZ_REQUIRE(Learner::Model::fromJson(learner.model().toJson()) == learner.model());
    FUZZ_REQUIRE(learner.learnedTerms().size() <= Learner::maxLearnedTerms);
    return 0;
}
