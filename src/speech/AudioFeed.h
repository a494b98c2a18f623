#pragma once

#include "speech/AsrEngine.h"

#include <vector>

// Hands recorded samples to an engine the way live capture does: consecutive chunks of a tenth of a
// second (the last one may be shorter), as fast as the engine takes them.
void feedInChunks(AsrEngine &engine, const std::vector<float> &samples, double sampleRate);
