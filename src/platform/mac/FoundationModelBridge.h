#pragma once

// The C face of FoundationModelBridge.swift: FoundationModels has no Objective-C interface, so the
// few calls we need are exported from Swift under these names.

#include <stdint.h>

extern "C" {

// 0 available, 1 device not eligible, 2 Apple Intelligence turned off, 3 model not ready,
// 4 any other reason (an operating system without the framework included).
int32_t quorvane_fm_availability(void);

// A new session on the default system model with these instructions and no tools; null when the
// framework is missing. Release it with quorvane_fm_session_release.
void *quorvane_fm_session_create(const char *instructions);
void quorvane_fm_session_prewarm(void *session);
void quorvane_fm_session_release(void *session);

// Status of a reply: the response text, a generation error of the model (its localised
// description), or any other failure (its description).
enum { quorvane_fm_replied = 0, quorvane_fm_generation_error = 1, quorvane_fm_other_error = 2 };
typedef void (*quorvane_fm_reply_callback)(void *context, int32_t status, const char *text);

// Starts one greedy response of at most `maximumResponseTokens` tokens and returns at once;
// `callback` is called exactly once, on a thread of the Swift runtime, with `context`.
void quorvane_fm_session_respond(void *session, const char *prompt, int32_t maximumResponseTokens, void *context,
                                 quorvane_fm_reply_callback callback);
}
