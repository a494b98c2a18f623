#include "platform/linux/AtspiTerminalText.h"

#include <QList>

// GLib's headers use "signals" as a field name, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
#include <atspi/atspi.h>
#pragma pop_macro("signals")

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

} // namespace

std::optional<QString> AtspiTerminalText::read(qint32 processID) {
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
