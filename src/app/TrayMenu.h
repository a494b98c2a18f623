#pragma once

#include "core/Config.h"
#include "pipeline/PipelineState.h"
#include "repository/AgentHandoffLaunching.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QAction;
class QMenu;

// The tray's menu: the state, the figures worth knowing and every setting. A choice edits a copy of
// the settings and hands it to `onChange`; dialogs and work outside the menu go through hooks, so
// the menu runs the same without a tray or a person in front of it.
class TrayMenu : public QObject {
    Q_OBJECT
public:
    struct Status {
        PipelineState state;
        int learnedWords = 0;
        int historyCount = 0;
        std::optional<qint64> p50;
        std::optional<qint64> p95;
        // A dictation whose transcription failed can be tried again.
        bool canRetry = false;
    };

    struct Hooks {
        std::function<QString(PushToTalkKey)> keyName;
        std::function<bool(AgentKind)> isAgentAvailable;
        std::function<Status()> status;
        // Dialogs: a folder, a model name (given the current one), a yes/no question, a notice.
        std::function<std::optional<QString>()> chooseFolder;
        std::function<std::optional<QString>(const QString &current)> askOllamaModel;
        std::function<bool(const QString &title, const QString &question)> confirm;
        std::function<void(const QString &title, const QString &message)> inform;

        std::function<void(const Config &updated)> onChange;
        std::function<void()> retryLastDictation;
        std::function<void()> forgetLearnedWords;
        std::function<void()> deleteRetainedData;
        std::function<void()> openVocabulary;
        std::function<void()> showHistory;
        std::function<void()> showSetup;
        std::function<void()> restart;
        std::function<void()> quit;
    };

    TrayMenu(Config config, Hooks hooks);
    ~TrayMenu() override;

    QMenu *menu() const { return m_menu.get(); }
    const Config &config() const { return m_config; }
    // Settings changed elsewhere (onboarding): the next choice starts from them.
    void setConfig(const Config &config);
    // Rebuilds the entries from the settings and the status; done each time the menu opens.
    void refresh();

    // "Ready", "Recording…", "Thinking…" or the error.
    static QString stateText(const PipelineState &state);
    // "12 learned words · 3 in history · p50 640 ms · p95 1210 ms"; latency only when known.
    static QString figuresText(const Status &status);

private:
    void change(const std::function<void(Config &)> &edit);
    void addStatus();
    void addKeyMenu(const QString &title, PushToTalkKey Config::*field);
    void addEngineMenus();
    void addCaptureMenus();
    void addPromptMenus();
    void addRetentionItems();
    void addApplicationItems();
    QMenu *addSubmenu(const QString &title);
    QAction *addToggle(QMenu *menu, const QString &text, bool Config::*field);
    void pinRepository();

    Config m_config;
    Hooks m_hooks;
    std::unique_ptr<QMenu> m_menu;
    std::vector<QPointer<QMenu>> m_submenus;
};
