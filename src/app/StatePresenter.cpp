#include "app/StatePresenter.h"

#include <utility>

StatePresenter::StatePresenter(std::function<void(const PipelineState &)> draw, Scheduler &scheduler)
    : m_draw(std::move(draw)), m_scheduler(scheduler) {}

StatePresenter::~StatePresenter() {
    Scheduler::cancel(m_pending);
}

void StatePresenter::update(const PipelineState &state) {
    m_latest = state;
    if (state.kind == PipelineState::Kind::recording) {
        Scheduler::cancel(std::exchange(m_pending, nullptr));
        draw(state);
        return;
    }
    if (m_pending)
        return;
    m_pending = m_scheduler.schedule(settleMs, [this] {
        m_pending.reset();
        draw(m_latest);
    });
}

void StatePresenter::draw(const PipelineState &state) {
    if (m_drawn == state)
        return;
    m_drawn = state;
    m_draw(state);
}
