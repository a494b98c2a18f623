#pragma once

#include "core/SerialQueue.h"
#include "history/Utterance.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <deque>
#include <functional>
#include <optional>

// What the user chose to retain: the text history ("history.jsonl", newest last), the recordings
// ("audio/<id>.wav") and the custom vocabulary ("vocabulary.txt"), all within fixed ceilings, oldest
// out first. File work runs on the store's own serial queue. A process killed at any moment loses at
// most the entry it was appending: pruning replaces the file atomically, and an unfinished last line
// is dropped when the file is next opened, before anything reads or appends.
class Store {
public:
    explicit Store(QString root, RetentionLimits limits = {});
    // Finishes the queued file work.
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    const QString &root() const { return m_root; }
    const RetentionLimits &limits() const { return m_limits; }
    QString historyPath() const;
    QString audioDirectory() const;
    QString vocabularyPath() const;

    // Returns at once; the write happens on the store's queue.
    void append(const Utterance &utterance);
    // The delivered texts of the newest entries, at most `limit`, oldest first. Waits for queued appends.
    QStringList recentTranscripts(int limit) const;
    // The newest entries, at most `limit`, newest first. Waits for queued appends.
    QList<Utterance> recentEntries(int limit) const;
    int totalCount() const;
    int retainedAudioCount() const;

    // Where the recording of `utteranceID` goes; creates the audio folder (700) on first use.
    QString audioURL(const QString &utteranceID) const;
    // After a recording was written at `path`: protects it (600) and prunes the recordings.
    void didWriteAudio(const QString &path);

    // The user's terms, without comments and blank lines; empty when the file is missing.
    QStringList vocabulary() const;
    void ensureVocabularyFile() const;
    static QString vocabularyHeader();

    // Deletes the history and every recording, keeping the vocabulary and the settings. `completion`
    // gets the failure's description (or nothing) on the thread of `context`, unless it is gone by then.
    void deleteRetainedData(QObject *context, std::function<void(std::optional<QString> error)> completion);

    // Waits until every queued file operation has finished.
    void drain() const;

private:
    // Queue-side state: the byte size of every line of the history file, read once, so that appends
    // and pruning never parse the file.
    struct Index {
        bool loaded = false;
        std::deque<qint64> lineSizes;
        qint64 bytes = 0;
    };

    void loadIndex() const;
    void appendLine(const QByteArray &line);
    void appendInPlace(const QByteArray &line);
    void reportLostEntry(const QString &reason);
    bool rewriteHistory(qint64 dropLines, const QByteArray &extra);
    void pruneAudio();
    // Newest first.
    QList<Utterance> readRecent(int limit) const;

    QString m_root;
    RetentionLimits m_limits;
    mutable Index m_index;
    mutable SerialQueue m_queue{QStringLiteral("speakwell.store")};
};
