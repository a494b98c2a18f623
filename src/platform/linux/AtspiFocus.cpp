#include "platform/linux/AtspiFocus.h"

#include "core/Log.h"

// GLib uses `signals` as a name; Qt defines it as a keyword.
#undef signals
#include <atspi/atspi.h>
#include <dbus/dbus.h>
#define signals Q_SIGNALS

#include <functional>
#include <memory>
#include <mutex>

namespace AtspiFocus {

namespace {

// As long as libatspi waits for an application's answer.
constexpr int answerTimeoutMs = 800;
// A large document tree must not stall the paste: the focus sits within a few levels of the window.
constexpr int maxDepth = 24;
constexpr int maxVisited = 4000;

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Accessible = std::unique_ptr<AtspiAccessible, Unref>;
using Text = std::unique_ptr<AtspiText, Unref>;

void dropError(GError *&error) {
    if (error)
        g_error_free(error);
    error = nullptr;
}

bool hasState(AtspiAccessible *accessible, AtspiStateType state) {
    AtspiStateSet *states = atspi_accessible_get_state_set(accessible);
    if (!states)
        return false;
    const bool has = atspi_state_set_contains(states, state);
    g_object_unref(states);
    return has;
}

// Depth-first, skipping subtrees that are not showing: only a visible element can hold the focus.
Accessible findFocused(AtspiAccessible *node, int depth, int &visited) {
    if (++visited > maxVisited || depth > maxDepth)
        return nullptr;
    if (depth > 0 && hasState(node, ATSPI_STATE_FOCUSED))
        return Accessible(ATSPI_ACCESSIBLE(g_object_ref(node)));
    if (depth > 1 && !hasState(node, ATSPI_STATE_SHOWING))
        return nullptr;
    GError *error = nullptr;
    const gint count = atspi_accessible_get_child_count(node, &error);
    dropError(error);
    for (gint i = 0; i < count; ++i) {
        Accessible child(atspi_accessible_get_child_at_index(node, i, &error));
        dropError(error);
        if (!child)
            continue;
        if (Accessible found = findFocused(child.get(), depth + 1, visited))
            return found;
    }
    return nullptr;
}

// Ranges are AT-SPI text offsets: characters by the protocol, though some toolkits count UTF-16
// units. The range and the text it selects come from the same offsets, and a snapshot is only
// ever compared with another read of this kind, so the units agree either way.
class AtspiElement final : public FocusedElement {
public:
    explicit AtspiElement(Accessible accessible) : m_accessible(std::move(accessible)) {}

    QStringList roles() override {
        GError *error = nullptr;
        gchar *name = atspi_accessible_get_role_name(m_accessible.get(), &error);
        dropError(error);
        if (!name)
            return {};
        const QString role = QString::fromUtf8(name);
        g_free(name);
        return {role};
    }

    std::optional<QString> selectedText() override {
        const std::optional<AtspiRange> range = selection();
        if (!range || range->end_offset <= range->start_offset)
            return std::nullopt;
        GError *error = nullptr;
        gchar *text = atspi_text_get_text(m_text.get(), range->start_offset, range->end_offset, &error);
        dropError(error);
        if (!text)
            return std::nullopt;
        const QString selected = QString::fromUtf8(text);
        g_free(text);
        return selected;
    }

    bool isSelectionSettable() override { return hasState(m_accessible.get(), ATSPI_STATE_EDITABLE); }

    // libatspi keeps the states it read, and only the events it may not have seen yet update
    // them: the question goes to the application itself.
    bool stillFocused() override {
        atspi_accessible_clear_cache(m_accessible.get());
        return hasState(m_accessible.get(), ATSPI_STATE_FOCUSED);
    }

    // The same question as a call of our own on libatspi's connection, whose answer is waited for
    // only when wanted; libatspi has no way to ask without waiting.
    std::function<bool()> askStillFocused() override {
        AtspiObject *object = ATSPI_OBJECT(m_accessible.get());
        DBusConnection *bus = object->app && object->app->bus ? object->app->bus : atspi_get_a11y_bus();
        if (!bus || !object->app || !object->app->bus_name || !object->path)
            return FocusedElement::askStillFocused();
        DBusMessage *call =
            dbus_message_new_method_call(object->app->bus_name, object->path, "org.a11y.atspi.Accessible", "GetState");
        DBusPendingCall *pending = nullptr;
        const bool sent = call && dbus_connection_send_with_reply(bus, call, &pending, answerTimeoutMs) && pending;
        if (call)
            dbus_message_unref(call);
        if (!sent)
            return [] { return false; };
        dbus_connection_flush(bus);
        return [answer = std::shared_ptr<DBusPendingCall>(pending, dbus_pending_call_unref)] {
            dbus_pending_call_block(answer.get());
            DBusMessage *reply = dbus_pending_call_steal_reply(answer.get());
            if (!reply)
                return false;
            // The states are a bit set in 32-bit words, lowest first.
            bool focused = false;
            DBusMessageIter words, word;
            if (dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
                dbus_message_iter_init(reply, &words) && dbus_message_iter_get_arg_type(&words) == DBUS_TYPE_ARRAY) {
                dbus_message_iter_recurse(&words, &word);
                if (dbus_message_iter_get_arg_type(&word) == DBUS_TYPE_UINT32) {
                    dbus_uint32_t low = 0;
                    dbus_message_iter_get_basic(&word, &low);
                    focused = low & (dbus_uint32_t(1) << ATSPI_STATE_FOCUSED);
                }
            }
            dbus_message_unref(reply);
            return focused;
        };
    }

    std::optional<qint64> processID() override {
        GError *error = nullptr;
        const guint pid = atspi_accessible_get_process_id(m_accessible.get(), &error);
        const bool failed = error != nullptr;
        dropError(error);
        if (failed || pid == 0)
            return std::nullopt;
        return qint64(pid);
    }

    std::optional<TextSelectionRange> selectedRange() override {
        if (const std::optional<AtspiRange> range = selection())
            return TextSelectionRange{range->start_offset, range->end_offset - range->start_offset};
        return std::nullopt;
    }

private:
    // The first selection, or the caret as an empty one.
    std::optional<AtspiRange> selection() {
        if (!m_text)
            m_text.reset(atspi_accessible_get_text_iface(m_accessible.get()));
        if (!m_text)
            return std::nullopt;
        GError *error = nullptr;
        const gint count = atspi_text_get_n_selections(m_text.get(), &error);
        if (error) {
            dropError(error);
            return std::nullopt;
        }
        if (count > 0) {
            AtspiRange *range = atspi_text_get_selection(m_text.get(), 0, &error);
            dropError(error);
            if (!range)
                return std::nullopt;
            const AtspiRange copy = *range;
            g_free(range);
            return copy;
        }
        const gint caret = atspi_text_get_caret_offset(m_text.get(), &error);
        if (error) {
            dropError(error);
            return std::nullopt;
        }
        return AtspiRange{caret, caret};
    }

    Accessible m_accessible;
    Text m_text;
};

bool initialised() {
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        // 0 is a fresh start, 1 "already initialised" by another user in this process.
        ready = atspi_init() >= 0;
        if (!ready)
            Log::warn(QStringLiteral("The accessibility bus is not available: secure fields and selections cannot "
                                     "be read."));
    });
    return ready;
}

} // namespace

namespace {

// The focused element under the first of the desktop's applications for which `search` finds one.
template <typename Search> std::unique_ptr<FocusedElement> searchApplications(Search search) {
    if (!initialised())
        return nullptr;
    Accessible desktop(atspi_get_desktop(0));
    if (!desktop)
        return nullptr;
    GError *error = nullptr;
    const gint count = atspi_accessible_get_child_count(desktop.get(), &error);
    dropError(error);
    for (gint i = 0; i < count; ++i) {
        Accessible application(atspi_accessible_get_child_at_index(desktop.get(), i, &error));
        dropError(error);
        if (!application)
            continue;
        if (Accessible focused = search(application.get()))
            return std::make_unique<AtspiElement>(std::move(focused));
    }
    return nullptr;
}

Accessible focusedUnder(AtspiAccessible *root) {
    int visited = 0;
    return findFocused(root, 0, visited);
}

} // namespace

std::unique_ptr<FocusedElement> focusedElementOf(qint32 processID) {
    if (processID <= 0)
        return nullptr;
    return searchApplications([processID](AtspiAccessible *application) -> Accessible {
        GError *error = nullptr;
        const guint pid = atspi_accessible_get_process_id(application, &error);
        dropError(error);
        return qint32(pid) == processID ? focusedUnder(application) : Accessible();
    });
}

std::unique_ptr<FocusedElement> focusedElementInActiveWindow() {
    return searchApplications([](AtspiAccessible *application) -> Accessible {
        GError *error = nullptr;
        const gint windows = atspi_accessible_get_child_count(application, &error);
        dropError(error);
        for (gint w = 0; w < windows; ++w) {
            Accessible window(atspi_accessible_get_child_at_index(application, w, &error));
            dropError(error);
            // Every application remembers its own focus; only the active window's is the user's.
            if (window && hasState(window.get(), ATSPI_STATE_ACTIVE))
                if (Accessible focused = focusedUnder(window.get()))
                    return focused;
        }
        return Accessible();
    });
}

} // namespace AtspiFocus
