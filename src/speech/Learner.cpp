#include "speech/Learner.h"

#include "core/Log.h"
#include "core/Paths.h"
#include "core/Text.h"

#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>
#include <QSet>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Marks count too: a decomposed "é" is one character of the word, not a break.
bool isWordCharacter(char32_t c) {
    return Text::isAlphanumeric(c);
}

bool isApostrophe(char32_t c) {
    return c == U'\'' || c == U'\u2019';
}

// Joiners stay inside a word only between word characters: "3.14", "real-time", "don't", "snake_case".
bool isJoiner(char32_t c) {
    return c == U'.' || c == U'-' || c == U'_' || isApostrophe(c);
}

// The comparison form of a word: composed, lower-cased, and the typographic apostrophe read as the
// straight one, so "Let’s" and "let's" are one word.
QString comparisonKey(const QString &word) {
    QString key = Text::lower(word);
    key.replace(QChar(u'\u2019'), QLatin1Char('\''));
    return key;
}

bool hasUppercaseProperty(char32_t c) {
    if (QChar::isUpper(c))
        return true;
    // Other_Uppercase: Roman numerals, circled and squared Latin capitals.
    return (c >= 0x2160 && c <= 0x216F) || (c >= 0x24B6 && c <= 0x24CF) || (c >= 0x1F130 && c <= 0x1F149) ||
           (c >= 0x1F150 && c <= 0x1F169) || (c >= 0x1F170 && c <= 0x1F189);
}

bool startsUppercase(const QString &word) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, word);
    const qsizetype end = finder.toNextBoundary();
    if (end <= 0)
        return false;
    const QString first = word.left(end);
    const QList<char32_t> scalars = Text::codePoints(first);
    if (scalars.size() == 1)
        return hasUppercaseProperty(scalars.front());
    const bool cased = Text::lower(first) != Text::upper(first);
    return cased && first == Text::upper(first);
}

} // namespace

QJsonObject Learner::Term::toJson() const {
    return {{QStringLiteral("surface"), surface},
            {QStringLiteral("count"), count},
            {QStringLiteral("properNoun"), properNoun}};
}

std::optional<Learner::Term> Learner::Term::fromJson(const QJsonObject &object) {
    const QJsonValue surface = object.value(QStringLiteral("surface"));
    const QJsonValue count = object.value(QStringLiteral("count"));
    const QJsonValue properNoun = object.value(QStringLiteral("properNoun"));
    if (!surface.isString() || !count.isDouble() || !properNoun.isBool())
        return std::nullopt;
    const double number = count.toDouble();
    // Checked before converting: an out-of-range number would make the conversion undefined.
    if (!(number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()) ||
        std::trunc(number) != number)
        return std::nullopt;
    return Term{surface.toString(), static_cast<int>(number), properNoun.toBool()};
}

QJsonObject Learner::Model::toJson() const {
    QJsonObject encodedTerms;
    for (auto it = terms.cbegin(); it != terms.cend(); ++it)
        encodedTerms.insert(it.key(), it->toJson());
    return {{QStringLiteral("terms"), encodedTerms}, {QStringLiteral("utterances"), utterances}};
}

std::optional<Learner::Model> Learner::Model::fromJson(const QJsonObject &object) {
    const QJsonValue encodedTerms = object.value(QStringLiteral("terms"));
    const QJsonValue utterances = object.value(QStringLiteral("utterances"));
    if (!encodedTerms.isObject() || !utterances.isDouble())
        return std::nullopt;
    Model model;
    model.utterances = utterances.toInt(-1);
    if (model.utterances < 0)
        return std::nullopt;
    const QJsonObject termObjects = encodedTerms.toObject();
    for (auto it = termObjects.constBegin(); it != termObjects.constEnd(); ++it) {
        if (!it->isObject())
            return std::nullopt;
        std::optional<Term> term = Term::fromJson(it->toObject());
        if (!term)
            return std::nullopt;
        model.terms.insert(it.key(), *term);
    }
    return model;
}

Learner::Learner(QString path, Scheduler &scheduler) : m_path(std::move(path)), m_scheduler(scheduler) {
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return;
    if (std::optional<Model> model = Model::fromJson(document.object()))
        m_model = std::move(*model);
}

Learner::~Learner() {
    if (m_saveScheduled.load()) {
        Scheduler::cancel(m_pendingSave);
        writeSnapshot();
    }
    m_saveQueue.drain();
}

QString Learner::defaultPath() {
    return Paths::file(QStringLiteral("learned.json"));
}

QList<Learner::Token> Learner::tokenize(const QString &text) {
    QList<Token> tokens;
    const QList<char32_t> scalars = Text::codePoints(text);
    QString word;
    auto flush = [&](bool endsSentence) {
        if (!word.isEmpty())
            tokens.append(Token{word, endsSentence});
        word.clear();
    };
    for (qsizetype i = 0; i < scalars.size(); ++i) {
        const char32_t c = scalars[i];
        if (isWordCharacter(c)) {
            word += Text::fromCodePoint(c);
            continue;
        }
        const bool followedByWord = i + 1 < scalars.size() && isWordCharacter(scalars[i + 1]);
        if (isJoiner(c) && !word.isEmpty() && followedByWord) {
            word += Text::fromCodePoint(c);
            continue;
        }
        flush(c == U'.' || c == U'!' || c == U'?');
    }
    flush(false);
    return tokens;
}

bool Learner::isCommonWord(const QString &lowered) {
    static const QSet<QString> common = [] {
        static const char *const entries[] = {
            "the",       "and",       "for",        "are",       "but",        "not",      "you",      "all",
            "any",       "can",       "had",        "her",       "was",        "one",      "our",      "out",
            "day",       "get",       "has",        "him",       "his",        "how",      "man",      "new",
            "now",       "old",       "see",        "two",       "way",        "who",      "boy",      "did",
            "its",       "let",       "put",        "say",       "she",        "too",      "use",      "that",
            "with",      "have",      "this",       "will",      "your",       "from",     "they",     "know",
            "want",      "been",      "good",       "much",      "some",       "time",     "very",     "when",
            "come",      "here",      "just",       "like",      "long",       "make",     "many",     "over",
            "such",      "take",      "than",       "them",      "well",       "were",     "what",     "would",
            "there",     "their",     "about",      "could",     "other",      "after",    "first",    "never",
            "these",     "think",     "where",      "being",     "every",      "great",    "might",    "shall",
            "still",     "those",     "under",      "while",     "should",     "really",   "actually", "basically",
            "literally", "something", "everything", "nothing",   "anything",   "someone",  "anyone",   "because",
            "before",    "between",   "through",    "around",    "however",    "together", "yeah",     "okay",
            "gonna",     "wanna",     "kinda",      "sorta",     "stuff",      "thing",    "things",   "going",
            "doing",     "getting",   "looking",    "trying",    "making",     "need",     "needs",    "needed",
            "let's",     "its",       "dont",       "cant",      "wont",       "thats",    "were",     "weve",
            "ill",       "ive",       "youre",      "hes",       "shes",       "theyre",   "were",     "lets",
            "him",       "she",       "yes",        "did",       "does",       "done",     "went",     "goes",
            "said",      "says",      "tell",       "told",      "ask",        "asked",    "give",     "gave",
            "find",      "found",     "feel",       "felt",      "seem",       "seems",    "keep",     "kept",
            "turn",      "turned",    "start",      "started",   "stop",       "stopped",  "help",     "helps",
            "work",      "works",     "worked",     "call",      "called",     "move",     "moved",    "live",
            "lived",     "show",      "showed",     "play",      "played",     "run",      "runs",     "play",
            "back",      "down",      "only",       "then",      "also",       "into",     "most",     "made",
            "even",      "must",      "part",       "both",      "last",       "next",     "left",     "right",
            "little",    "people",    "world",      "house",     "place",      "water",    "again",    "away",
            "around",    "today",     "tomorrow",   "yesterday", "morning",    "night",    "week",     "month",
            "year",      "hour",      "minute",     "second",    "email",      "message",  "please",   "thanks",
            "thank",     "hello",     "hey",        "sure",      "fine",       "cool",     "nice",     "great",
            "perfect",   "done",      "working",    "seems",     "everything", "hello",    "how",      "are",
            "you",       "doing",     "today",      "can",       "for",        "from",     "that",     "this"};
        QSet<QString> set;
        for (const char *entry : entries)
            set.insert(QString::fromLatin1(entry));
        return set;
    }();
    if (common.contains(lowered))
        return true;
    // Contractions are common whichever way they are written: "can't" is "cant".
    if (!lowered.contains(QLatin1Char('\'')))
        return false;
    return common.contains(QString(lowered).remove(QLatin1Char('\'')));
}

void Learner::ingest(const QString &shipped) {
    const QList<Token> tokens = tokenize(Text::composed(shipped));
    if (tokens.isEmpty())
        return;
    // Counts stop at their ceiling rather than wrap: a loaded file may already be there.
    m_model.utterances += m_model.utterances < std::numeric_limits<int>::max() ? 1 : 0;
    bool atSentenceStart = true;
    for (const Token &token : tokens) {
        const bool startsSentence = atSentenceStart;
        atSentenceStart = token.endsSentence;
        if (Text::graphemeCount(token.word) < 3)
            continue;
        const QList<char32_t> scalars = Text::codePoints(token.word);
        if (std::none_of(scalars.cbegin(), scalars.cend(), Text::isLetter))
            continue;
        const QString key = comparisonKey(token.word);
        if (isCommonWord(key))
            continue;
        const bool properNoun = !startsSentence && startsUppercase(token.word);
        auto existing = m_model.terms.find(key);
        if (existing == m_model.terms.end()) {
            m_model.terms.insert(key, Term{token.word, 1, properNoun});
            continue;
        }
        existing->count += existing->count < std::numeric_limits<int>::max() ? 1 : 0;
        // Offer the capitalised spelling once the word has shown itself to be a name.
        if (properNoun && !existing->properNoun)
            existing->surface = token.word;
        existing->properNoun = existing->properNoun || properNoun;
    }
    scheduleSave();
}

QStringList Learner::learnedTerms(std::optional<int> limit) const {
    QList<const Term *> offered;
    for (const Term &term : m_model.terms) {
        if (term.count >= minCount || term.properNoun)
            offered.append(&term);
    }
    std::sort(offered.begin(), offered.end(), [](const Term *a, const Term *b) {
        if (a->count != b->count)
            return a->count > b->count;
        return a->surface < b->surface;
    });
    const int keep = limit && *limit < maxLearnedTerms ? std::max(*limit, 0) : maxLearnedTerms;
    QStringList surfaces;
    for (qsizetype i = 0; i < offered.size() && i < keep; ++i)
        surfaces.append(offered[i]->surface);
    return surfaces;
}

void Learner::clear() {
    m_model = Model{};
    Log::info(QStringLiteral("Learned vocabulary cleared by the user."));
    scheduleSave();
}

void Learner::flush() {
    m_saveQueue.drain();
}

void Learner::scheduleSave() {
    if (m_saveScheduled.exchange(true))
        return;
    m_pendingSave = m_scheduler.schedule(saveDelayMs, [this] { writeSnapshot(); });
}

void Learner::writeSnapshot() {
    // The snapshot is taken here, on the model's own thread; the queue only touches the copy.
    const QByteArray encoded = QJsonDocument(m_model.toJson()).toJson(QJsonDocument::Compact);
    m_saveScheduled.store(false);
    m_saveQueue.async([path = m_path, encoded] {
        // A failed write is not reported: the next save writes the whole model again.
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return;
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        file.write(encoded);
        if (file.commit())
            Paths::protectFile(path);
    });
}
