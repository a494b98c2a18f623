#pragma once

#include "core/Scheduler.h"
#include "pipeline/PipelineState.h"

#include <functional>
#include <optional>

// Hands the pipeline's state to whatever draws it (tray icon, overlay). Drawing competes for the
// processor with the window that is taking a paste, so a state that follows a recording is drawn
// a moment later, the newest one only: a dictation typed within that moment never draws its
// thinking state, and its return to idle is drawn after the window has read the clipboard.
// Recording is drawn at once: it answers the key the user is holding.
class StatePresenter final {
public:
    static constexpr qint64 settleMs = 50;

    explicit StatePresenter(std::function<void(const PipelineState &)> draw,
                            Scheduler &scheduler = Scheduler::system());
    ~StatePresenter();
    StatePresenter(const StatePresenter &) = delete;
    StatePresenter &operator=(const StatePresenter &) = delete;

    void update(const PipelineState &state);

private:
    void draw(const PipelineState &state);

    std::function<void(const PipelineState &)> m_draw;
    Scheduler &m_scheduler;
    Scheduler::Handle m_pending;
    PipelineState m_latest;
    std::optional<PipelineState> m_drawn;
};
