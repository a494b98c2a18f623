#pragma once

#include <functional>
#include <memory>

// Hands work from any thread to the main thread's event loop. The work runs only if `target` is
// still alive then; targets die on the main thread, so the check cannot race their destruction.
// Work posted from one thread runs in the order it was posted.
void postToMainThread(std::weak_ptr<const void> target, std::function<void()> work);
