#pragma once

#include "platform/TextInjection.h"
#include "repository/AgentHandoffLaunching.h"

#include <QList>
#include <QString>
#include <optional>
#include <utility>

// Records what was typed and copied; the next injection can be made to fail.
class RecordingInjector final : public TextInjector {
public:
    void inject(const QString &text) override {
        if (const std::optional<QuorvaneError> failure = std::exchange(m_failure, std::nullopt))
            throw *failure;
        injected.append(text);
    }
    void copyToClipboard(const QString &text) override {
        if (copyFailure)
            throw *copyFailure;
        clipboard = text;
    }
    void prepareInjection() override { ++prepares; }
    void failNextInjection(const QuorvaneError &error) { m_failure = error; }

    QStringList injected;
    std::optional<QString> clipboard;
    // Every copy fails with this, as on a desktop whose clipboard cannot be reached.
    std::optional<QuorvaneError> copyFailure;
    int prepares = 0;

private:
    std::optional<QuorvaneError> m_failure;
};

// The user's selection in the application in front: what a capture reads, and what a replacement
// finds there when it checks that the selection is still the captured one.
class FakeSelectionEditor final : public SelectionEditing {
public:
    SelectedTextSnapshot captureSelection() override {
        if (!current)
            throw QuorvaneError(QuorvaneError::Case::noTextSelected);
        return *current;
    }
    void replaceSelection(const SelectedTextSnapshot &snapshot, const QString &text) override {
        if (!current || !(*current == snapshot))
            throw QuorvaneError(QuorvaneError::Case::selectionChanged);
        replacements.append({snapshot, text});
    }

    std::optional<SelectedTextSnapshot> current;
    QList<std::pair<SelectedTextSnapshot, QString>> replacements;
};

class FakeFrontmostApp final : public FrontmostAppProvider {
public:
    FrontmostApp frontmostApp() override { return app; }
    FrontmostApp app;
};

// Every notice shown, in order.
class RecordingNotifier final : public UserNotifier {
public:
    struct Notice {
        QString title;
        QString body;
        bool operator==(const Notice &) const = default;
    };
    void notify(const QString &title, const QString &body) override { notices.append({title, body}); }
    QStringList titles() const {
        QStringList result;
        for (const Notice &notice : notices)
            result.append(notice.title);
        return result;
    }
    QList<Notice> notices;
};

// A coding agent that receives prompts at once, or fails as scripted.
class FakeAgentLauncher final : public AgentHandoffLaunching {
public:
    struct Handoff {
        QString prompt;
        AgentKind agent;
        RepositoryContext repository;
    };
    QCoro::Task<void> handoff(QString prompt, AgentKind agent, RepositoryContext repository) override {
        if (failure)
            throw *failure;
        handoffs.append({prompt, agent, repository});
        co_return;
    }
    std::optional<QuorvaneError> failure;
    QList<Handoff> handoffs;
};
