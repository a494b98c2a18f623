#pragma once

#include "platform/AudioBackend.h"

#include <QStringList>
#include <mutex>
#include <stdexcept>
#include <vector>

// An input stream a test plays by hand: deliver() calls the open stream's buffer handler as the
// backend's thread would. Records what each open() saw.
class ScriptedAudioBackend final : public AudioBackend {
public:
    bool permissionGranted() override { return locked(m_permission); }
    bool voiceProcessingEnabled() override { return locked(m_voiceProcessing); }
    void setVoiceProcessingEnabled(bool on) override { set(m_voiceProcessing, on); }
    InputFormat inputFormat() override { return locked(m_format); }
    void open(double, BufferHandler onBuffer, ErrorHandler) override {
        std::lock_guard lock(m_mutex);
        ++m_opens;
        if (!m_openFailure.isEmpty())
            throw std::runtime_error(m_openFailure.toStdString());
        m_onBuffer = std::move(onBuffer);
        m_running = true;
        m_openedVoiceProcessing.push_back(m_voiceProcessing);
    }
    void close() override {
        std::lock_guard lock(m_mutex);
        ++m_closes;
        m_onBuffer = {};
        m_running = false;
    }
    bool isRunning() override { return locked(m_running); }
    void setListening(bool listening) override { set(m_listening, listening); }

    // Plays one buffer through the open stream; nothing happens when it is closed.
    void deliver(std::vector<float> samples) {
        const BufferHandler handler = locked(m_onBuffer);
        if (handler)
            handler(std::move(samples));
    }
    void setPermission(bool granted) { set(m_permission, granted); }
    void setVoiceProcessing(bool on) { set(m_voiceProcessing, on); }
    void setFormat(InputFormat format) { set(m_format, format); }
    // Non-empty: open() throws with this text.
    void failOpens(const QString &reason) { set(m_openFailure, reason); }
    // The platform stopping the stream behind our back.
    void setRunning(bool running) { set(m_running, running); }

    bool listening() const { return locked(m_listening); }
    int opens() const { return locked(m_opens); }
    int closes() const { return locked(m_closes); }
    // The voice-processing state each successful open() started with.
    std::vector<bool> openedVoiceProcessing() const { return locked(m_openedVoiceProcessing); }

private:
    template <typename T> T locked(const T &value) const {
        std::lock_guard lock(m_mutex);
        return value;
    }
    template <typename T> void set(T &member, T value) {
        std::lock_guard lock(m_mutex);
        member = std::move(value);
    }

    mutable std::mutex m_mutex;
    bool m_permission = true;
    bool m_voiceProcessing = false;
    InputFormat m_format{48000, 1};
    QString m_openFailure;
    bool m_running = false;
    bool m_listening = true;
    BufferHandler m_onBuffer;
    int m_opens = 0;
    int m_closes = 0;
    std::vector<bool> m_openedVoiceProcessing;
};
