#include "app/TrayMenu.h"

#include "core/AppInfo.h"
#include "pipeline/Pipeline.h"
#include "repository/RepositoryIndexer.h"

#include <QActionGroup>
#include <QDir>
#include <QMenu>

namespace {

const QString separator = QStringLiteral(" \u00B7 ");

// One radio group per submenu: the checked entry is the current value.
template <typename Apply>
QAction *addChoice(QMenu *menu, QActionGroup *group, const QString &text, bool checked, Apply apply) {
    QAction *action = menu->addAction(text);
    action->setCheckable(true);
    action->setChecked(checked);
    group->addAction(action);
    QObject::connect(action, &QAction::triggered, menu, [apply] { apply(); });
    return action;
}

} // namespace

TrayMenu::TrayMenu(Config config, Hooks hooks)
    : m_config(std::move(config)), m_hooks(std::move(hooks)), m_menu(std::make_unique<QMenu>()) {
    // Named, so window lists and screen readers can tell the open menu apart.
    m_menu->setWindowTitle(QStringLiteral("Quorvane Menu"));
    connect(m_menu.get(), &QMenu::aboutToShow, this, &TrayMenu::refresh);
    refresh();
}

TrayMenu::~TrayMenu() {
    for (const QPointer<QMenu> &submenu : m_submenus)
        delete submenu.data();
}

QString TrayMenu::stateText(const PipelineState &state) {
    switch (state.kind) {
    case PipelineState::Kind::idle:
        return QStringLiteral("Ready");
    case PipelineState::Kind::recording:
        return QStringLiteral("Recording\u2026");
    case PipelineState::Kind::thinking:
        return QStringLiteral("Thinking\u2026");
    case PipelineState::Kind::error:
        return state.message.isEmpty() ? QStringLiteral("Something went wrong") : state.message;
    }
    return {};
}

QString TrayMenu::figuresText(const Status &status) {
    QStringList parts;
    parts << (status.learnedWords == 1 ? QStringLiteral("1 learned word")
                                       : QStringLiteral("%1 learned words").arg(status.learnedWords));
    parts << QStringLiteral("%1 in history").arg(status.historyCount);
    if (status.p50)
        parts << QStringLiteral("p50 %1 ms").arg(*status.p50);
    if (status.p95)
        parts << QStringLiteral("p95 %1 ms").arg(*status.p95);
    return parts.join(separator);
}

void TrayMenu::setConfig(const Config &config) {
    m_config = config;
    refresh();
}

void TrayMenu::change(const std::function<void(Config &)> &edit) {
    Config updated = m_config;
    edit(updated);
    if (updated == m_config)
        return;
    m_config = updated;
    if (m_hooks.onChange)
        m_hooks.onChange(m_config);
    // Not now: the action that got us here belongs to the entries a rebuild deletes.
    QMetaObject::invokeMethod(this, &TrayMenu::refresh, Qt::QueuedConnection);
}

void TrayMenu::refresh() {
    m_menu->clear();
    for (const QPointer<QMenu> &submenu : m_submenus)
        delete submenu.data();
    m_submenus.clear();

    addStatus();
    m_menu->addSeparator();
    addKeyMenu(QStringLiteral("Dictation key"), &Config::pushToTalkKey);
    addKeyMenu(QStringLiteral("Edit in Place key"), &Config::editKey);
    addKeyMenu(QStringLiteral("Prompt Mode key"), &Config::promptKey);
    m_menu->addSeparator();
    addEngineMenus();
    addCaptureMenus();
    m_menu->addSeparator();
    addPromptMenus();
    m_menu->addSeparator();
    addRetentionItems();
    m_menu->addSeparator();
    addApplicationItems();
}

QMenu *TrayMenu::addSubmenu(const QString &title) {
    auto *submenu = new QMenu(title);
    m_menu->addMenu(submenu);
    m_submenus.emplace_back(submenu);
    return submenu;
}

QAction *TrayMenu::addToggle(QMenu *menu, const QString &text, bool Config::*field) {
    QAction *action = menu->addAction(text);
    action->setCheckable(true);
    action->setChecked(m_config.*field);
    connect(action, &QAction::triggered, this, [this, field](bool on) { change([&](Config &c) { c.*field = on; }); });
    return action;
}

void TrayMenu::addStatus() {
    const Status status = m_hooks.status ? m_hooks.status() : Status{};
    QAction *title =
        m_menu->addAction(QStringLiteral("Quorvane %1").arg(AppInfo::version()) + separator + stateText(status.state));
    title->setEnabled(false);
    QAction *figures = m_menu->addAction(figuresText(status));
    figures->setEnabled(false);
    QAction *retry = m_menu->addAction(QStringLiteral("Retry last dictation"));
    retry->setEnabled(status.canRetry);
    connect(retry, &QAction::triggered, this, [this] {
        if (m_hooks.retryLastDictation)
            m_hooks.retryLastDictation();
    });
}

void TrayMenu::addKeyMenu(const QString &title, PushToTalkKey Config::*field) {
    QMenu *menu = addSubmenu(title);
    auto *group = new QActionGroup(menu);
    const std::pair<PushToTalkKey Config::*, PipelineMode> owners[] = {
        {&Config::pushToTalkKey, PipelineMode::dictation},
        {&Config::editKey, PipelineMode::editSelection},
        {&Config::promptKey, PipelineMode::developerPrompt},
    };
    for (PushToTalkKey key : allCases<PushToTalkKey>()) {
        QString text = m_hooks.keyName ? m_hooks.keyName(key) : displayName(key);
        std::optional<PipelineMode> takenBy;
        for (const auto &[other, mode] : owners)
            if (other != field && m_config.*other == key)
                takenBy = mode;
        // Two modes on one key would start both; a taken key is shown, but not offered.
        if (takenBy)
            text += QStringLiteral(" (used by ") + displayName(*takenBy) + QLatin1Char(')');
        QAction *action = addChoice(menu, group, text, m_config.*field == key,
                                    [this, field, key] { change([&](Config &c) { c.*field = key; }); });
        action->setEnabled(!takenBy);
    }
}

void TrayMenu::addEngineMenus() {
    QMenu *engines = addSubmenu(QStringLiteral("Speech engine"));
    auto *engineGroup = new QActionGroup(engines);
    for (AsrKind kind : allCases<AsrKind>())
        addChoice(engines, engineGroup, displayName(kind), m_config.asr == kind,
                  [this, kind] { change([&](Config &c) { c.asr = kind; }); });

    QMenu *formatters = addSubmenu(QStringLiteral("Formatter"));
    auto *formatterGroup = new QActionGroup(formatters);
    for (FormatterKind kind : allCases<FormatterKind>())
        addChoice(formatters, formatterGroup, displayName(kind), m_config.formatter == kind,
                  [this, kind] { change([&](Config &c) { c.formatter = kind; }); });
    formatters->addSeparator();
    QAction *model = formatters->addAction(QStringLiteral("Ollama model: %1\u2026").arg(m_config.ollamaModel));
    connect(model, &QAction::triggered, this, [this] {
        if (!m_hooks.askOllamaModel)
            return;
        const std::optional<QString> name = m_hooks.askOllamaModel(m_config.ollamaModel);
        if (name && !name->trimmed().isEmpty())
            change([&](Config &c) { c.ollamaModel = name->trimmed(); });
    });

    QMenu *languages = addSubmenu(QStringLiteral("Speech language"));
    auto *languageGroup = new QActionGroup(languages);
    bool known = false;
    for (const SpeechLocaleChoice &choice : SpeechLocaleChoice::all()) {
        known = known || choice.identifier == m_config.locale;
        const QString identifier = choice.identifier;
        addChoice(languages, languageGroup, choice.displayName, m_config.locale == identifier,
                  [this, identifier] { change([&](Config &c) { c.locale = identifier; }); });
    }
    // A locale set in the file by hand stays visible, so the menu never lies about what is used.
    if (!known)
        addChoice(languages, languageGroup, m_config.locale, true, [] {});
}

void TrayMenu::addCaptureMenus() {
    addToggle(m_menu.get(), QStringLiteral("Noise reduction"), &Config::voiceProcessingEnabled);

    QMenu *limits = addSubmenu(QStringLiteral("Recording limit"));
    auto *group = new QActionGroup(limits);
    bool known = false;
    for (const RecordingLimitChoice &choice : RecordingLimitChoice::all()) {
        known = known || choice.seconds == m_config.maximumRecordingSeconds;
        const qint64 seconds = choice.seconds;
        addChoice(limits, group, choice.displayName, m_config.maximumRecordingSeconds == seconds,
                  [this, seconds] { change([&](Config &c) { c.maximumRecordingSeconds = seconds; }); });
    }
    if (!known)
        addChoice(limits, group, Pipeline::recordingLimitLabel(m_config.maximumRecordingSeconds), true, [] {});
}

void TrayMenu::addPromptMenus() {
    QMenu *destinations = addSubmenu(QStringLiteral("Prompt destination"));
    auto *group = new QActionGroup(destinations);
    for (PromptDestination destination : allCases<PromptDestination>()) {
        const std::optional<AgentKind> agent = agentKind(destination);
        const bool installed = !agent || (m_hooks.isAgentAvailable && m_hooks.isAgentAvailable(*agent));
        QString text = displayName(destination);
        if (!installed)
            text += QStringLiteral(" (not installed)");
        QAction *action =
            addChoice(destinations, group, text, m_config.promptDestination == destination,
                      [this, destination] { change([&](Config &c) { c.promptDestination = destination; }); });
        action->setEnabled(installed);
    }

    QMenu *repository = addSubmenu(QStringLiteral("Repository for Prompt Mode"));
    QAction *follow = repository->addAction(QStringLiteral("Follow the focused window"));
    follow->setCheckable(true);
    follow->setChecked(!m_config.pinnedRepositoryPath);
    connect(follow, &QAction::triggered, this, [this] { change([](Config &c) { c.pinnedRepositoryPath.reset(); }); });
    if (m_config.pinnedRepositoryPath) {
        QAction *pinned = repository->addAction(QStringLiteral("Pinned: ") +
                                                QDir::toNativeSeparators(*m_config.pinnedRepositoryPath));
        pinned->setCheckable(true);
        pinned->setChecked(true);
        pinned->setEnabled(false);
    }
    QAction *pin = repository->addAction(QStringLiteral("Pin a folder\u2026"));
    connect(pin, &QAction::triggered, this, &TrayMenu::pinRepository);
    repository->addSeparator();
    addToggle(repository, QStringLiteral("Use repository facts"), &Config::repositoryContextEnabled);
}

void TrayMenu::pinRepository() {
    if (!m_hooks.chooseFolder)
        return;
    const std::optional<QString> folder = m_hooks.chooseFolder();
    if (!folder || folder->isEmpty())
        return;
    // A folder inside a repository pins the repository itself, as Git would see it.
    const std::optional<QString> root = RepositoryIndexer::findRepositoryRoot(*folder);
    if (!root) {
        if (m_hooks.inform)
            m_hooks.inform(QStringLiteral("Not a Git repository"),
                           QStringLiteral("%1 is not inside a Git repository, so Prompt Mode cannot use it. "
                                          "Choose the folder of a repository that Git tracks.")
                               .arg(QDir::toNativeSeparators(*folder)));
        return;
    }
    change([&](Config &c) {
        c.pinnedRepositoryPath = *root;
        c.repositoryContextEnabled = true;
    });
}

void TrayMenu::addRetentionItems() {
    addToggle(m_menu.get(), QStringLiteral("Keep history"), &Config::retainHistory);
    addToggle(m_menu.get(), QStringLiteral("Keep recordings"), &Config::retainAudio);
    addToggle(m_menu.get(), QStringLiteral("Learn vocabulary"), &Config::learnVocabulary);
    addToggle(m_menu.get(), QStringLiteral("Show recording overlay"), &Config::showOverlay);
    addToggle(m_menu.get(), QStringLiteral("Play sounds"), &Config::playSounds);

    // Without a kept history there is nothing to show.
    QAction *history = m_menu->addAction(QStringLiteral("History\u2026"));
    history->setEnabled(m_config.retainHistory);
    connect(history, &QAction::triggered, this, [this] {
        if (m_hooks.showHistory)
            m_hooks.showHistory();
    });
    QAction *forget = m_menu->addAction(QStringLiteral("Forget learned words\u2026"));
    connect(forget, &QAction::triggered, this, [this] {
        if (m_hooks.confirm &&
            m_hooks.confirm(QStringLiteral("Forget learned words?"),
                            QStringLiteral("Quorvane forgets every word it learned from your dictations. "
                                           "Your vocabulary file stays as it is.")) &&
            m_hooks.forgetLearnedWords)
            m_hooks.forgetLearnedWords();
    });
    QAction *erase = m_menu->addAction(QStringLiteral("Delete retained data\u2026"));
    connect(erase, &QAction::triggered, this, [this] {
        if (m_hooks.confirm &&
            m_hooks.confirm(QStringLiteral("Delete retained data?"),
                            QStringLiteral("Quorvane deletes its history, its recordings and the words it learned. "
                                           "Your settings and vocabulary file stay. This cannot be undone.")) &&
            m_hooks.deleteRetainedData)
            m_hooks.deleteRetainedData();
    });
    QAction *vocabulary = m_menu->addAction(QStringLiteral("Open vocabulary file"));
    connect(vocabulary, &QAction::triggered, this, [this] {
        if (m_hooks.openVocabulary)
            m_hooks.openVocabulary();
    });
}

void TrayMenu::addApplicationItems() {
    QAction *setup = m_menu->addAction(QStringLiteral("Setup Checks\u2026"));
    connect(setup, &QAction::triggered, this, [this] {
        if (m_hooks.showSetup)
            m_hooks.showSetup();
    });
    addToggle(m_menu.get(), QStringLiteral("Launch at login"), &Config::launchAtLogin);
    QAction *restart = m_menu->addAction(QStringLiteral("Restart Quorvane"));
    connect(restart, &QAction::triggered, this, [this] {
        if (m_hooks.restart)
            m_hooks.restart();
    });
    QAction *quit = m_menu->addAction(QStringLiteral("Quit Quorvane"));
    connect(quit, &QAction::triggered, this, [this] {
        if (m_hooks.quit)
            m_hooks.quit();
    });
}
