#pragma once

#include <QString>
#include <exception>

// The sentence shown for an error thrown by a speech engine, a formatter or the WAV decoder.
QString describeError(std::exception_ptr error);
