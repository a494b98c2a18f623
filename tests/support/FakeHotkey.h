#pragma once

#include "platform/GlobalHotkey.h"

// A push-to-talk key a test presses and releases by hand.
class FakeHotkey final : public GlobalHotkey {
public:
    explicit FakeHotkey(PushToTalkKey key = PushToTalkKey::rightOption) : m_key(key) {}

    bool start() override {
        m_started = true;
        return true;
    }
    void stop() override { m_started = false; }
    void updateKey(PushToTalkKey key) override { m_key = key; }

    void press() const {
        if (onPress)
            onPress();
    }
    void release() const {
        if (onRelease)
            onRelease();
    }
    bool isStarted() const { return m_started; }
    PushToTalkKey key() const { return m_key; }

private:
    PushToTalkKey m_key;
    bool m_started = false;
};
