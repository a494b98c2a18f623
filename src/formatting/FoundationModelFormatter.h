#pragma once

#include "formatting/ModelRequest.h"
#include "formatting/OnDeviceLanguageModel.h"
#include "formatting/TextFormatter.h"

#include <array>
#include <memory>

// Formats with the operating system's on-device model, in process. Loading a session is the slow
// part of a short request, so one session per kind of request is kept warm: each is used for one
// request only (a session remembers its conversation) and replaced by a freshly warmed one.
class FoundationModelFormatter final : public TextFormatter {
public:
    explicit FoundationModelFormatter(std::shared_ptr<OnDeviceLanguageModel> model);

    QString name() const override { return QStringLiteral("Apple on-device model"); }
    bool isAvailable() const override;
    std::optional<QString> unavailableReason() const override;
    // Warms one session per kind of request. Never fails.
    QCoro::Task<void> prepare() override;

    QCoro::Task<QString> format(QString transcript, FormattingContext context) override;
    QCoro::Task<QString> rewrite(QString text, RewriteCommand command, FormattingContext context) override;
    QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) override;

private:
    enum Kind { dictation, selectionRewrite, developerPrompt, kindCount };

    // Shared with requests in flight, which outlive the formatter when the pipeline replaces it.
    struct State {
        std::shared_ptr<OnDeviceLanguageModel> model;
        std::array<std::shared_ptr<OnDeviceLanguageModel::Session>, kindCount> warm;
    };

    static void prewarm(State &state, Kind kind);
    static QCoro::Task<QString> respond(std::shared_ptr<State> state, Kind kind, ModelRequest request);

    std::shared_ptr<State> m_state;
};
