// Outputs that are never half-written: temporary files beside their
// targets, created, renamed into place and removed through one registry, so
// an interrupt (SIGINT, SIGTERM) can remove every temporary file still open
// and report how far a batch got before the process ends.
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>

namespace qtool {

// A fresh temporary name beside `target` (NAME.tmp-PID-N).
std::string TempName(const std::string &target);

// Calls create() while no interrupt can slip in between the file's creation
// and its registration; create() makes the file at `temp` and returns false
// when it could not. Throws FormatError once an interrupt has begun.
bool CreateTemp(const std::string &temp, const std::function<bool()> &create);
// Renames a registered temporary file onto its target (false on failure).
bool CommitTemp(const std::string &temp, const std::string &target);
// Removes a registered temporary file.
void DiscardTemp(const std::string &temp);

// How far the current batch is; read by the interrupt report.
struct BatchProgress {
    std::atomic<long> files{0}, filesDone{0}, written{0};
};
BatchProgress &Progress();

// Blocks SIGINT and SIGTERM in the calling thread (call it first in main,
// before any thread starts) and starts a thread that waits for them: it
// removes every registered temporary file, reports the batch's progress and
// ends the process with 128 + the signal's number.
void HandleInterrupts();

}  // namespace qtool
