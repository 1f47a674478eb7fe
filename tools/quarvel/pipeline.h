// Pipelines over batches: steps separated by '|', applied to every page of
// every input file. Files are streamed (read a page, process it, write it,
// release it) on -j N threads; every output name is checked before anything
// is written, and each output file is written whole or not at all.
#pragma once

#include <string>
#include <vector>

#include "ops.h"

namespace qtool {

struct Step {
    const Op *op;
    Values values;
};

// Parses "remove-border1 --threshold 100 | denoise --size 2".
std::vector<Step> ParsePipeline(const std::string &text);

// Applies the steps to one page: image steps replace it, measurement steps
// report a value (collected in `measures`) and pass the page on. A refused
// step throws OperationError naming the step.
class OperationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
Page ApplySteps(const std::vector<Step> &steps, Page page, std::vector<std::pair<std::string, Measure>> *measures);

struct RunOptions {
    std::string outDir;
    std::string format;  // output extension; empty: the input's
    int jobs = 1;
    bool json = false;
    bool progress = true;  // only drawn when stderr is a terminal
    bool inPlace = false;  // outputs may replace inputs
};

// Exit codes of the tool.
constexpr int kDone = 0, kPartly = 1, kUsage = 2, kInput = 3, kOperation = 4, kOutput = 5;

// The output a batch writes for `input` (before numbering pages).
std::string OutputPath(const std::string &dir, const std::string &input, const std::string &format);

// Runs the pipeline; returns the exit code (kDone every file written,
// kPartly some files skipped or failed, kUsage output folder or names refused
// before anything was written, kInput no input could be read).
int RunBatch(const std::vector<Step> &steps, const std::vector<std::string> &files, const RunOptions &options);

// Splits a command line the way a shell would for plain words and quotes.
std::vector<std::string> SplitWords(const std::string &text);

}  // namespace qtool
