#pragma once

// Xlib's default error handler ends the process; a window that closes between two of our reads
// must only fail that read. Installed once, before the first connection is opened; Qt's own X11
// connection does not go through Xlib's handler.
namespace X11Errors {
void installTolerantHandler();
}
