#include "app/RecordingOverlay.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <cmath>

namespace {

constexpr int overlayWidth = 260;
constexpr int overlayHeight = 64;
constexpr float floorDb = -50.0f;

} // namespace

RecordingOverlay::RecordingOverlay(Scheduler &scheduler)
    // A tool-tip window is one no platform activates on show, and X11 maps it past the window
    // manager; the other hints say the same to whoever reads them.
    : QWidget(nullptr, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                           Qt::WindowTransparentForInput),
      m_scheduler(scheduler), m_meter(meterBars, 0.0f) {
    setWindowTitle(QStringLiteral("Quorvane Recording"));
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFocusPolicy(Qt::NoFocus);
    setFixedSize(overlayWidth, overlayHeight);
    // Round corners without a compositor: translucency would show black there under plain X11.
    QPainterPath outline;
    outline.addRoundedRect(QRectF(rect()), 14, 14);
    setMask(QRegion(outline.toFillPolygon().toPolygon()));
}

RecordingOverlay::~RecordingOverlay() {
    stopPolling();
}

float RecordingOverlay::meterPosition(float level) {
    if (!(level > 0.0f))
        return 0.0f;
    const float db = 20.0f * std::log10(std::min(level, 1.0f));
    return std::clamp((db - floorDb) / -floorDb, 0.0f, 1.0f);
}

void RecordingOverlay::showState(const PipelineState &state, PipelineMode mode) {
    const bool shown = state.kind == PipelineState::Kind::recording || state.kind == PipelineState::Kind::thinking;
    m_kind = state.kind;
    m_mode = mode;
    if (!shown) {
        stopPolling();
        hide();
        return;
    }
    if (m_kind == PipelineState::Kind::recording) {
        if (!isVisible())
            std::fill(m_meter.begin(), m_meter.end(), 0.0f);
        startPolling();
    } else {
        // The microphone is closed while thinking: a frozen meter would be a lie, an empty one is not.
        stopPolling();
        std::fill(m_meter.begin(), m_meter.end(), 0.0f);
    }
    if (!isVisible()) {
        placeOnPointerScreen();
        show();
    }
    update();
}

void RecordingOverlay::startPolling() {
    if (!m_poll)
        m_poll = m_scheduler.schedule(pollIntervalMs, [this] { poll(); });
}

void RecordingOverlay::stopPolling() {
    Scheduler::cancel(m_poll);
    m_poll.reset();
}

void RecordingOverlay::poll() {
    m_meter.pop_front();
    m_meter.push_back(meterPosition(level ? level() : 0.0f));
    update();
    m_poll = m_scheduler.schedule(pollIntervalMs, [this] { poll(); });
}

void RecordingOverlay::placeOnPointerScreen() {
    QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    if (!screen)
        return;
    // Low and centred, clear of the text the user is looking at.
    const QRect area = screen->availableGeometry();
    move(area.center().x() - width() / 2, area.bottom() - area.height() / 8 - height());
}

void RecordingOverlay::paintEvent(QPaintEvent *) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), QColor(0x1e, 0x1f, 0x22));

    const bool recording = m_kind == PipelineState::Kind::recording;
    const QColor accent = recording ? QColor(0xe5, 0x48, 0x3b) : QColor(0xf0, 0xa2, 0x20);
    painter.setPen(Qt::NoPen);
    painter.setBrush(accent);
    painter.drawEllipse(QRectF(16, 14, 12, 12));

    QFont font = painter.font();
    font.setPixelSize(13);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(QRect(36, 8, width() - 44, 24), Qt::AlignLeft | Qt::AlignVCenter, displayName(m_mode));
    font.setBold(false);
    painter.setFont(font);
    painter.setPen(QColor(0xb8, 0xbb, 0xc2));
    painter.drawText(QRect(36, 8, width() - 52, 24), Qt::AlignRight | Qt::AlignVCenter,
                     recording ? QStringLiteral("Listening") : QStringLiteral("Thinking\u2026"));

    // Bars grow from the middle line, newest on the right.
    const qreal left = 16;
    const qreal step = (width() - 2 * left) / meterBars;
    const qreal middle = 46;
    const qreal maxHalf = 12;
    painter.setPen(Qt::NoPen);
    painter.setBrush(recording ? QColor(0x6c, 0xd4, 0x8a) : QColor(0x5a, 0x5d, 0x66));
    for (int i = 0; i < meterBars; ++i) {
        const qreal half = std::max<qreal>(1.5, m_meter[i] * maxHalf);
        painter.drawRoundedRect(QRectF(left + i * step + 1, middle - half, step - 3, 2 * half), 2, 2);
    }
}
