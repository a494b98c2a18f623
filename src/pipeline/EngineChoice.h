#pragma once

#include "core/Config.h"
#include "formatting/TextFormatter.h"
#include "speech/AsrEngine.h"

#include <functional>
#include <memory>

// Builds the platform's on-device recogniser for a locale ("en-US"); empty (or returning null) where
// there is none.
using NativeAsrFactory = std::function<std::unique_ptr<AsrEngine>(const QString &locale)>;

// The speech engine the settings choose: the on-device recogniser when the settings ask for it and
// the platform has one, otherwise the whisper.cpp server at the configured endpoint and locale.
std::unique_ptr<AsrEngine> makeAsr(const Config &config, const NativeAsrFactory &nativeFactory);

// Builds the platform's on-device language model formatter; empty (or returning null) where there
// is none.
using NativeFormatterFactory = std::function<std::unique_ptr<TextFormatter>()>;

// The formatter the settings choose: none passes the raw transcript through; the on-device model
// when asked for and the platform has one; otherwise Ollama at the configured endpoint and model.
std::unique_ptr<TextFormatter> makeFormatter(const Config &config, const NativeFormatterFactory &nativeFactory);
