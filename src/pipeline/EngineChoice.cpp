#include "pipeline/EngineChoice.h"

#include "speech/WhisperServerEngine.h"

std::unique_ptr<AsrEngine> makeAsr(const Config &config, const NativeAsrFactory &nativeFactory) {
    if (config.asr == AsrKind::appleSpeech && nativeFactory) {
        if (std::unique_ptr<AsrEngine> native = nativeFactory())
            return native;
    }
    return std::make_unique<WhisperServerEngine>(config.whisperEndpoint, config.locale);
}
