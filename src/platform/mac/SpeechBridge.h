#pragma once

// The C face of SpeechBridge.swift: SpeechAnalyzer has no Objective-C interface, so the few calls we
// need are exported from Swift under these names. Callbacks come on threads of the Swift runtime.

#include <stdint.h>

extern "C" {

// 0 SpeechAnalyzer (macOS 26 on hardware that runs it), 1 SFSpeechRecognizer kept on the device.
int32_t quorvane_sr_technology(void);

// Whether the user lets us use speech recognition: 0 allowed, 1 refused or restricted, 2 not asked.
int32_t quorvane_sr_permission(void);

typedef void (*quorvane_sr_status_callback)(void *context, int32_t status, const char *text);

// Asks the user once; status 0 allowed, 1 not.
void quorvane_sr_request_permission(void *context, quorvane_sr_status_callback callback);

// Status 0 model installed, 1 model downloadable, 2 locale not recognised on the device.
void quorvane_sr_locale_support(const char *locale, void *context, quorvane_sr_status_callback callback);

// Starts downloading the model for `locale`; status 0 installed, 1 failed with the platform's
// description (empty where the system offers no download).
// Returns a handle whose progress can be read until quorvane_sr_install_release.
void *quorvane_sr_install(const char *locale, void *context, quorvane_sr_status_callback callback);
double quorvane_sr_install_progress(void *install);
void quorvane_sr_install_release(void *install);

typedef void (*quorvane_sr_segment_callback)(void *context, const char *text);

// One utterance; each final segment goes to `onSegment` with `context` until cancel or release.
void *quorvane_sr_session_start(const char *locale, const char *const *contextualStrings, int32_t count, void *context,
                                quorvane_sr_segment_callback onSegment);
// Mono float samples at `sampleRate`; the bridge converts them to what the recogniser takes.
void quorvane_sr_session_append(void *session, const float *samples, int32_t count, double sampleRate);
// Ends the audio; `callback` is called exactly once: status 0 finished, 1 no speech heard, 2 failed
// (with the platform's description, empty when it gave none).
void quorvane_sr_session_finish(void *session, void *context, quorvane_sr_status_callback callback);
void quorvane_sr_session_cancel(void *session);
// After this no segment callback runs.
void quorvane_sr_session_release(void *session);
}
