// config.json is the user's to edit by hand: any bytes either decode to a usable configuration or are
// refused as a whole, and what decodes survives its own save and load unchanged.
#include "FuzzInput.h"
#include "core/Config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::optional<Config> config = Config::decode(FuzzInput::bytes(data, size));
    if (!config)
        return 0;
    // A repaired setting that changed again on the next start would keep rewriting the user's file.
    FUZZ_REQUIRE(Config::decode(config->encode()) == config);
    // Two actions on one key could never both be reached.
    FUZZ_REQUIRE(config->pushToTalkKey != config->editKey);
    FUZZ_REQUIRE(config->promptKey != config->pushToTalkKey && config->promptKey != config->editKey);
    return 0;
}
