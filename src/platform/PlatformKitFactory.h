#pragma once

#include "pipeline/PlatformKit.h"

// The desktop services of the platform this program was built for. Defined once per platform in
// the platform library; anything a platform does not offer yet is its fallback.
PlatformKit makePlatformKit();
