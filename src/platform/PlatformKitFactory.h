#pragma once

#include "pipeline/PlatformKit.h"

// The desktop services of the platform this program was built for, as the settings choose them.
// Defined once per platform in the platform library; anything a platform does not offer yet is
// its fallback. Services that use one another are wired once all of them exist.
PlatformKit makePlatformKit(const Config &config = Config());
