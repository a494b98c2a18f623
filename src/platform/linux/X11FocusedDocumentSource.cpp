#include "platform/linux/X11FocusedDocumentSource.h"

#include "platform/linux/WindowTitleDocument.h"
#include "platform/linux/X11Errors.h"
#include "platform/linux/X11Windows.h"

#include <QUrl>

// GLib's headers use "signals" as a field name, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
#include <atspi/atspi.h>
#pragma pop_macro("signals")

#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace {

constexpr int maxVisitedObjects = 2000;

std::optional<QString> localFile(const QString &url) {
    const QUrl parsed(url);
    if (parsed.isLocalFile())
        return parsed.toLocalFile();
    if (url.startsWith(QLatin1Char('/')))
        return url;
    return std::nullopt;
}

// The first file URL among the document attributes under `root`, breadth first.
std::optional<QString> findDocumentURL(AtspiAccessible *root) {
    QList<AtspiAccessible *> queue{root};
    g_object_ref(root);
    std::optional<QString> found;
    int budget = maxVisitedObjects;
    while (!queue.isEmpty()) {
        AtspiAccessible *node = queue.takeFirst();
        GError *error = nullptr;
        if (!found) {
            if (AtspiDocument *document = atspi_accessible_get_document_iface(node)) {
                for (const char *name : {"DocURL", "URI", "URL"}) {
                    gchar *value =
                        atspi_document_get_document_attribute_value(document, const_cast<gchar *>(name), &error);
                    g_clear_error(&error);
                    if (value && !found)
                        found = localFile(QString::fromUtf8(value));
                    g_free(value);
                }
                g_object_unref(document);
            }
            const int count = found ? 0 : atspi_accessible_get_child_count(node, &error);
            g_clear_error(&error);
            for (int i = 0; i < count && budget > 0; ++i, --budget) {
                if (AtspiAccessible *child = atspi_accessible_get_child_at_index(node, i, &error))
                    queue.append(child);
                g_clear_error(&error);
            }
        }
        g_object_unref(node);
    }
    return found;
}

} // namespace

X11FocusedDocumentSource::X11FocusedDocumentSource(QString homeDirectory) : m_home(std::move(homeDirectory)) {}

X11FocusedDocumentSource::~X11FocusedDocumentSource() {
    if (m_display)
        XCloseDisplay(m_display);
}

std::optional<QString> X11FocusedDocumentSource::focusedDocumentPath(qint32 processID) {
    if (const auto document = accessibleDocumentPath(processID))
        return document;
    if (const auto title = activeWindowTitle(processID))
        return WindowTitleDocument::path(*title, m_home);
    return std::nullopt;
}

std::optional<QString> X11FocusedDocumentSource::accessibleDocumentPath(qint32 processID) {
    if (atspi_init() < 0)
        return std::nullopt;
    AtspiAccessible *desktop = atspi_get_desktop(0);
    if (!desktop)
        return std::nullopt;
    std::optional<QString> found;
    GError *error = nullptr;
    const int applications = atspi_accessible_get_child_count(desktop, &error);
    g_clear_error(&error);
    for (int a = 0; a < applications && !found; ++a) {
        AtspiAccessible *application = atspi_accessible_get_child_at_index(desktop, a, &error);
        g_clear_error(&error);
        if (!application)
            continue;
        const guint owner = atspi_accessible_get_process_id(application, &error);
        g_clear_error(&error);
        const int windows = owner == guint(processID) ? atspi_accessible_get_child_count(application, &error) : 0;
        g_clear_error(&error);
        for (int w = 0; w < windows && !found; ++w) {
            AtspiAccessible *window = atspi_accessible_get_child_at_index(application, w, &error);
            g_clear_error(&error);
            if (!window)
                continue;
            AtspiStateSet *states = atspi_accessible_get_state_set(window);
            if (states && atspi_state_set_contains(states, ATSPI_STATE_ACTIVE))
                found = findDocumentURL(window);
            if (states)
                g_object_unref(states);
            g_object_unref(window);
        }
        g_object_unref(application);
    }
    g_object_unref(desktop);
    return found;
}

std::optional<QString> X11FocusedDocumentSource::activeWindowTitle(qint32 processID) {
    std::lock_guard lock(m_mutex);
    if (!m_display) {
        X11Errors::installTolerantHandler();
        m_display = XOpenDisplay(nullptr);
    }
    if (!m_display)
        return std::nullopt;
    const Window window = X11Windows::activeWindow(m_display);
    if (window == None)
        return std::nullopt;
    // Focus may have moved since the caller looked: another application's title says nothing here.
    if (const auto owner = X11Windows::processOf(m_display, window); owner && *owner != processID)
        return std::nullopt;
    const Atom utf8 = XInternAtom(m_display, "UTF8_STRING", False);
    if (const auto name = X11Windows::readProperty(m_display, window, "_NET_WM_NAME", utf8); name && !name->isEmpty())
        return QString::fromUtf8(*name);
    if (const auto name = X11Windows::readProperty(m_display, window, "WM_NAME", AnyPropertyType);
        name && !name->isEmpty())
        return QString::fromLocal8Bit(*name);
    return std::nullopt;
}
