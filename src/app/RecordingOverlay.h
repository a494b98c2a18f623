#pragma once

#include "core/Scheduler.h"
#include "pipeline/PipelineState.h"

#include <QWidget>
#include <deque>
#include <functional>

// The small floating panel shown while recording and thinking: the mode, what is happening and a
// level meter. It never takes focus or a click, so the text still goes where the user was typing.
class RecordingOverlay : public QWidget {
    Q_OBJECT
public:
    static constexpr qint64 pollIntervalMs = 33;
    static constexpr int meterBars = 28;

    explicit RecordingOverlay(Scheduler &scheduler = Scheduler::system());
    ~RecordingOverlay() override;

    // The microphone's level, 0 to 1; polled only while the overlay is shown.
    std::function<float()> level;

    // Shown for recording and thinking, hidden otherwise.
    void showState(const PipelineState &state, PipelineMode mode);
    bool isPolling() const { return m_poll != nullptr; }
    // Newest last, each 0 to 1 on the meter's scale.
    const std::deque<float> &meter() const { return m_meter; }
    // Where 0..1 of linear amplitude lands on the meter: speech spans decibels, not amplitude.
    static float meterPosition(float level);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void startPolling();
    void stopPolling();
    void poll();
    void placeOnPointerScreen();

    Scheduler &m_scheduler;
    Scheduler::Handle m_poll;
    std::deque<float> m_meter;
    PipelineState::Kind m_kind = PipelineState::Kind::idle;
    PipelineMode m_mode = PipelineMode::dictation;
};
