#include "platform/linux/X11HandoffTerminal.h"

#include "platform/linux/X11Errors.h"
#include "platform/linux/X11Windows.h"

#include <QFileInfo>
#include <QProcess>
#include <atomic>
#include <unistd.h>

// GLib's headers use "signals" as a field name, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
#include <atspi/atspi.h>
#pragma pop_macro("signals")

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

namespace {

// A terminal's window holds a handful of widgets; the bound keeps a misbehaving application's
// tree from stalling the main thread.
constexpr int maxVisitedObjects = 2000;

template <typename T> struct GObjectRef {
    T *object = nullptr;
    explicit GObjectRef(T *o) : object(o) {}
    ~GObjectRef() {
        if (object)
            g_object_unref(object);
    }
    GObjectRef(const GObjectRef &) = delete;
    GObjectRef &operator=(const GObjectRef &) = delete;
    T *get() const { return object; }
    explicit operator bool() const { return object != nullptr; }
};

struct ErrorSink {
    GError *error = nullptr;
    ~ErrorSink() { g_clear_error(&error); }
    GError **operator&() {
        g_clear_error(&error);
        return &error;
    }
};

bool hasState(AtspiAccessible *object, AtspiStateType state) {
    GObjectRef<AtspiStateSet> states(atspi_accessible_get_state_set(object));
    return states && atspi_state_set_contains(states.get(), state);
}

QString takeString(gchar *text) {
    const QString value = text ? QString::fromUtf8(text) : QString();
    g_free(text);
    return value;
}

// The terminal widgets under `root`, breadth first; the focused one, if any, comes first.
QList<AtspiAccessible *> findTerminals(AtspiAccessible *root, int &budget) {
    QList<AtspiAccessible *> found;
    QList<AtspiAccessible *> queue{root};
    g_object_ref(root);
    while (!queue.isEmpty()) {
        AtspiAccessible *node = queue.takeFirst();
        ErrorSink error;
        if (atspi_accessible_get_role(node, &error) == ATSPI_ROLE_TERMINAL) {
            if (hasState(node, ATSPI_STATE_FOCUSED))
                found.prepend(node);
            else
                found.append(node);
            continue;
        }
        const int count = atspi_accessible_get_child_count(node, &error);
        for (int i = 0; i < count && budget > 0; ++i, --budget)
            if (AtspiAccessible *child = atspi_accessible_get_child_at_index(node, i, &error))
                queue.append(child);
        g_object_unref(node);
    }
    return found;
}

// The window manager's list of its top-level windows; empty without one.
QList<unsigned long> managedWindows(Display *display) {
    QList<unsigned long> windows;
    if (const auto bytes = X11Windows::readProperty(display, DefaultRootWindow(display), "_NET_CLIENT_LIST", XA_WINDOW))
        for (qsizetype at = 0; at + qsizetype(sizeof(long)) <= bytes->size(); at += sizeof(long))
            windows << *reinterpret_cast<const unsigned long *>(bytes->constData() + at);
    return windows;
}

} // namespace

X11HandoffTerminal::X11HandoffTerminal(std::optional<TerminalEmulator> terminal) : m_terminal(std::move(terminal)) {}

X11HandoffTerminal::~X11HandoffTerminal() {
    if (m_display)
        XCloseDisplay(m_display);
}

QCoro::Task<TerminalOpening> X11HandoffTerminal::open(QString scriptPath) {
    const auto terminal = m_terminal ? m_terminal : TerminalEmulators::choose();
    if (!terminal)
        co_return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    {
        std::lock_guard lock(m_mutex);
        m_windowsBefore = display() ? managedWindows(display()) : QList<unsigned long>{};
    }
    // Never parented nor deleted while it runs: destroying a QProcess kills its program, and the
    // agent's window must outlive this handoff and the app itself.
    auto *process = new QProcess;
    process->setProgram(terminal->program);
    // The script is named relative to its folder so that no terminal's own parsing of the command
    // can split a home folder with spaces in it.
    const QFileInfo script(scriptPath);
    process->setArguments(terminal->arguments(script.fileName()));
    process->setWorkingDirectory(script.absolutePath());
    process->setStandardInputFile(QProcess::nullDevice());
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // Its own session: a Ctrl+C aimed at us in a shell must not reach the user's agent.
    process->setChildProcessModifier([] { ::setsid(); });
    auto failed = std::make_shared<std::atomic<bool>>(false);
    QObject::connect(process, &QProcess::finished, process, [process, failed](int code, QProcess::ExitStatus status) {
        failed->store(status != QProcess::NormalExit || code != 0);
        process->deleteLater();
    });
    process->start();
    if (!process->waitForStarted(5000)) {
        delete process;
        co_return TerminalOpening{TerminalOpening::Outcome::notStarted, {}};
    }
    // The emulator runs as long as its window: a failure shows while the agent is awaited.
    co_return TerminalOpening{TerminalOpening::Outcome::opened, [failed] { return failed->load(); }};
}

std::optional<QString> X11HandoffTerminal::screenText(qint32 terminalProcessID) {
    return accessibleTerminalText(terminalProcessID);
}

std::optional<QString> X11HandoffTerminal::accessibleTerminalText(qint32 processID) {
    if (atspi_init() < 0)
        return std::nullopt;
    GObjectRef<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop)
        return std::nullopt;
    ErrorSink error;
    int budget = maxVisitedObjects;
    const int applications = atspi_accessible_get_child_count(desktop.get(), &error);
    for (int a = 0; a < applications; ++a) {
        GObjectRef<AtspiAccessible> application(atspi_accessible_get_child_at_index(desktop.get(), a, &error));
        if (!application || atspi_accessible_get_process_id(application.get(), &error) != guint(processID))
            continue;
        const int windows = atspi_accessible_get_child_count(application.get(), &error);
        for (int w = 0; w < windows; ++w) {
            GObjectRef<AtspiAccessible> window(atspi_accessible_get_child_at_index(application.get(), w, &error));
            // Only the window in front: another tab or window of the same terminal shows someone else.
            if (!window || !hasState(window.get(), ATSPI_STATE_ACTIVE))
                continue;
            const QList<AtspiAccessible *> terminals = findTerminals(window.get(), budget);
            std::optional<QString> text;
            if (!terminals.isEmpty()) {
                GObjectRef<AtspiText> content(atspi_accessible_get_text_iface(terminals.first()));
                if (content) {
                    const int length = atspi_text_get_character_count(content.get(), &error);
                    text = takeString(atspi_text_get_text(content.get(), 0, qMax(length, 0), &error));
                }
            }
            for (AtspiAccessible *terminal : terminals)
                g_object_unref(terminal);
            if (text)
                return text;
        }
    }
    return std::nullopt;
}

_XDisplay *X11HandoffTerminal::display() {
    if (!m_display) {
        X11Errors::installTolerantHandler();
        m_display = XOpenDisplay(nullptr);
    }
    return m_display;
}

bool X11HandoffTerminal::agentWindowInFront(const FrontmostApp &) {
    std::lock_guard lock(m_mutex);
    if (!display())
        return false;
    // Without a window manager there is no list to compare with; the process check still applies.
    const unsigned long active = X11Windows::activeWindow(m_display);
    return active != None && !m_windowsBefore.contains(active);
}

bool X11HandoffTerminal::pressReturn() {
    std::lock_guard lock(m_mutex);
    display();
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!m_display || !XTestQueryExtension(m_display, &eventBase, &errorBase, &major, &minor))
        return false;
    const KeyCode code = XKeysymToKeycode(m_display, XK_Return);
    if (code == 0)
        return false;
    const bool posted =
        XTestFakeKeyEvent(m_display, code, True, CurrentTime) && XTestFakeKeyEvent(m_display, code, False, CurrentTime);
    XSync(m_display, False);
    return posted;
}
