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
    // Writes a recording at the path it is given; true when the file is there afterwards.
    using RecordingWriter = std::function<bool(const QString &path)>;
    // A delivered utterance: its recording (when there is a writer) and then its entry (when
    // `appendEntry`), both on the queue and in that order, so the caller never waits on the disk and
    // the entry names the recording only when it was written. Nothing is written before `afterMs`
    // have passed (what is queued behind waits too, so the order holds).
    void keepDelivered(Utterance utterance, RecordingWriter writeRecording, bool appendEntry, qint64 afterMs = 0);
    // The delivered texts of the newest entries, at most `limit`, oldest first. Waits for queued appends.
    QStringList recentTranscripts(int limit) const;
    // The newest entries, at most `limit`, newest first. Waits for queued appends.
    QList<Utterance> recentEntries(int limit) const;
    int totalCount() const;
    int retainedAudioCount() const;

    // Where the recording of `utteranceID` goes; creates the audio folder (700) on first use.
    QString audioURL(const QString &utteranceID) const;
    // The file name within the audio folder.
    static QString audioFileName(const QString &utteranceID);
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

    // The entry as one line of the history file; none (with a warning) when it is over the ceiling.
    std::optional<QByteArray> entryLine(const Utterance &utterance) const;
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
