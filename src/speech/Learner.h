#pragma once

#include "core/Scheduler.h"
#include "core/SerialQueue.h"

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <atomic>
#include <optional>

// The user's personal vocabulary, learned from the texts actually delivered: names, product names
// and jargon that the recogniser and the formatter should expect. Lives on the main thread; saves
// go to "learned.json" on a private queue, debounced.
class Learner {
public:
    struct Term {
        QString surface;
        int count = 0;
        bool properNoun = false;
        bool operator==(const Term &) const = default;
        QJsonObject toJson() const;
        static std::optional<Term> fromJson(const QJsonObject &object);
    };

    struct Model {
        // Keyed by the lower-cased word.
        QMap<QString, Term> terms;
        int utterances = 0;
        bool operator==(const Model &) const = default;
        QJsonObject toJson() const;
        // Anything malformed gives nothing: a half-read model would offer nonsense.
        static std::optional<Model> fromJson(const QJsonObject &object);
    };

    struct Token {
        QString word;
        bool endsSentence = false;
        bool operator==(const Token &) const = default;
    };

    // Loads `path` (normally "learned.json" in the data directory); a missing or corrupt file gives
    // an empty model. `scheduler` drives the save delay.
    explicit Learner(QString path = defaultPath(), Scheduler &scheduler = Scheduler::system());
    // Writes a pending save at once, so quitting within the debounce second loses nothing.
    ~Learner();
    Learner(const Learner &) = delete;
    Learner &operator=(const Learner &) = delete;

    static QString defaultPath();

    void ingest(const QString &shipped);
    // Best first; at most `limit` when it is below the ceiling, the ceiling otherwise.
    QStringList learnedTerms(std::optional<int> limit = std::nullopt) const;
    int learnedCount() const { return static_cast<int>(m_model.terms.size()); }
    const Model &model() const { return m_model; }
    // "Forget learned words…": starts again from an empty model.
    void clear();
    // Waits until every save started so far is on disk.
    void flush();

    static QList<Token> tokenize(const QString &text);
    static bool isCommonWord(const QString &lowered);

    static constexpr int minCount = 2;
    static constexpr int maxLearnedTerms = 80;
    static constexpr qint64 saveDelayMs = 1000;

private:
    void scheduleSave();
    void writeSnapshot(); // runs on the save queue

    QString m_path;
    Scheduler &m_scheduler;
    Model m_model;
    SerialQueue m_saveQueue{QStringLiteral("quorvane.learner")};
    std::atomic<bool> m_saveScheduled{false};
    Scheduler::Handle m_pendingSave;
};
