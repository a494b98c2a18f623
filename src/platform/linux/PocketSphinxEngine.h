#pragma once

#include "speech/AsrEngine.h"

#include <QString>
#include <functional>
#include <memory>
#include <optional>

// The on-device recogniser on Linux: PocketSphinx with the US English model Debian ships. Audio is
// decoded on a thread of its own while it arrives, so finishing an utterance only closes it.
// Recognition hints pick among the decoder's n-best list and teach it compound words.
class PocketSphinxEngine final : public AsrEngine {
public:
    // Where the pocketsphinx-en-us package puts its model.
    static QString defaultModelDirectory();

    // `locale` is the configured one ("en-US"); `modelDirectory` holds en-us/, en-us.lm.bin and
    // cmudict-en-us.dict. Does no I/O.
    explicit PocketSphinxEngine(QString locale, QString modelDirectory = defaultModelDirectory());
    ~PocketSphinxEngine() override;
    PocketSphinxEngine(const PocketSphinxEngine &) = delete;
    PocketSphinxEngine &operator=(const PocketSphinxEngine &) = delete;

    QString name() const override { return QStringLiteral("PocketSphinx"); }
    bool isStreaming() const override { return true; }
    double requiredSampleRate() const override { return 16000; }

    // Loads the model once; later calls return at once.
    QCoro::Task<void> prepare() override;
    QCoro::Task<void> beginUtterance(QStringList contextualStrings) override;
    // Queues the chunk for the decoder thread and returns.
    void append(const AudioChunk &chunk) override;
    QCoro::Task<QString> finishUtterance() override;
    // Audio still queued for the dropped utterance is skipped, not decoded.
    QCoro::Task<void> cancelUtterance() override;

    // Stretches of an utterance are closed at pauses while audio still arrives; this is the length
    // of the one the latest release still had to finish, from the last pause to the end.
    double lastStretchSeconds() const;

    // Any English locale: the one model is US English.
    static bool supportsLocale(const QString &locale);

    // The pronunciation of a word the dictionary lacks, made of the dictionary words it is written
    // as ("nightwatch" from night + watch), fewest pieces first; nothing when it cannot be built.
    static std::optional<QString>
    composedPronunciation(const QString &word, const std::function<std::optional<QString>(const QString &)> &lookup);

    class Decoder;

private:
    const QString m_locale;
    std::shared_ptr<Decoder> m_decoder;
};
