#include "pipeline/EngineChoice.h"

#include "formatting/OllamaFormatter.h"
#include "formatting/PassthroughFormatter.h"
#include "speech/WhisperServerEngine.h"

std::unique_ptr<AsrEngine> makeAsr(const Config &config, const NativeAsrFactory &nativeFactory) {
    if (config.asr == AsrKind::appleSpeech && nativeFactory) {
        if (std::unique_ptr<AsrEngine> native = nativeFactory(config.locale))
            return native;
    }
    return std::make_unique<WhisperServerEngine>(config.whisperEndpoint, config.locale);
}

std::unique_ptr<TextFormatter> makeFormatter(const Config &config, const NativeFormatterFactory &nativeFactory) {
    if (config.formatter == FormatterKind::none)
        return std::make_unique<PassthroughFormatter>();
    if (config.formatter == FormatterKind::appleFoundation && nativeFactory) {
        if (std::unique_ptr<TextFormatter> native = nativeFactory())
            return native;
    }
    return std::make_unique<OllamaFormatter>(config.ollamaEndpoint, config.ollamaModel);
}
