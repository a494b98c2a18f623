// history.jsonl may be cut short by a crash or edited by hand. Reading it backwards in chunks must
// find exactly the entries a plain front-to-back reading finds, and keep whole lines only.
#include "FuzzInput.h"
#include "history/Store.h"

#include <QFileInfo>
#include <QJsonDocument>

namespace {

struct Reading {
    qsizetype lines = 0;
    QStringList shipped;
    qsizetype wholeBytes = 0;
};

Reading readForwards(const QByteArray &contents) {
    Reading reading;
    reading.wholeBytes = contents.lastIndexOf('\n') + 1;
    QList<QByteArray> lines = contents.left(reading.wholeBytes).split('\n');
    lines.removeLast();
    reading.lines = lines.size();
    for (const QByteArray &line : lines) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line, &error);
        if (error.error != QJsonParseError::NoError || !document.isObject())
            continue;
        if (const std::optional<Utterance> entry = Utterance::fromJson(document.object()))
            reading.shipped << entry->shippedText;
    }
    return reading;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    static const QString root = FuzzInput::scratchDirectory() + QStringLiteral("/history");
    // The first byte repeats the rest, so that files outgrow one read chunk; the second sets how many
    // entries are asked for.
    const QByteArray contents = FuzzInput::bytes(data + 2, size - 2).repeated(1 + data[0] % 48);
    const int limit = 1 + data[1] % 64;
    // One store for the run: a thread per store would cost more than the parsing. Deleting the
    // history makes it forget what it knew about the previous file.
    static Store store(root);
    store.deleteRetainedData(nullptr, {});
    store.drain();
    FuzzInput::writeFile(store.historyPath(), contents);

    const Reading expected = readForwards(contents);
    FUZZ_REQUIRE(store.totalCount() == expected.lines);
    FUZZ_REQUIRE(store.recentTranscripts(limit) ==
                 expected.shipped.mid(qMax<qsizetype>(0, expected.shipped.size() - limit)));
    FUZZ_REQUIRE(QFileInfo(store.historyPath()).size() == expected.wholeBytes);
    return 0;
}
