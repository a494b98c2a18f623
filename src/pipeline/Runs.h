#pragma once

#include "pipeline/RunContext.h"

// The rest of a run once the engine has heard something, one per mode. Each ends in the outcome
// the pipeline shows, or in none when the run was abandoned meanwhile.
QCoro::Task<RunEnd> runDictation(RunServices services, std::shared_ptr<RunContext> run, QString raw, Timings timings);
QCoro::Task<RunEnd> runEditCommand(RunServices services, std::shared_ptr<RunContext> run, QString raw, Timings timings);
QCoro::Task<RunEnd> runDeveloperPrompt(RunServices services, std::shared_ptr<RunContext> run, QString raw,
                                       Timings timings);
