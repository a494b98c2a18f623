#include "pipeline/PipelineState.h"

QString PipelineState::description() const {
    switch (kind) {
    case Kind::error:
        return QStringLiteral("error: ") + message;
    case Kind::idle:
        return QStringLiteral("idle");
    case Kind::recording:
        return QStringLiteral("recording");
    case Kind::thinking:
        return QStringLiteral("thinking");
    }
    return {};
}
