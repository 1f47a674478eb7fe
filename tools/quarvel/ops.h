// The operation table: one entry per library operation with its arguments
// (name, type, default, help) and the call. Adding an operation to the tool
// is one entry.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "page.h"
#include "quarvel/scan.h"

namespace qtool {

enum class ArgType { kInt, kDouble, kBool, kRect, kFile, kWord };

struct Arg {
    const char *name;  // option name, without the leading --
    ArgType type;
    const char *fallback;  // default as text; nullptr: required; "" for an optional file
    const char *help;
    double lo = -1e300, hi = 1e300;  // accepted range of a number
    const char *choices = nullptr;   // accepted values, "a|b|c"; nullptr: any in range
};

// Parsed argument values, by option name.
class Values {
public:
    int Int(const std::string &name) const;
    double Double(const std::string &name) const;
    const std::string &Word(const std::string &name) const { return text.at(name); }
    bool Bool(const std::string &name) const;
    RECT Rect(const std::string &name) const;
    // A second page read from a file; null when the optional file is absent.
    HGLOBAL File(const std::string &name) const;

    std::map<std::string, std::string> text;
    std::map<std::string, std::vector<Page>> files;
};

// A measurement's outcome: a number or a set of named numbers.
struct Measure {
    std::string text;   // as printed
    std::string json;   // a JSON value
    bool flat = false;  // json is an object whose keys are printed beside "file" and "page"
    bool ok = true;     // false: the page could not be measured (text says why)
};

// One JSON line: {"file", "page", "operation", "value"}, or for a flat
// measure {"file", "page", ...its keys}.
std::string JsonLine(const std::string &file, std::size_t page, const std::string &operation, const Measure &m);

struct Op {
    const char *exportName;
    std::string name;  // kebab-case
    const char *summary;
    bool image;  // returns a page (else a measurement)
    std::vector<Arg> args;
    std::function<HGLOBAL(HGLOBAL, const Values &)> apply;    // image operations
    std::function<Measure(HGLOBAL, const Values &)> measure;  // measurements
    std::vector<std::string> aliases = {};                    // plain-English names
    const char *notes = nullptr;                              // conventions shown by help
};

const std::vector<Op> &Operations();
// By kebab name or export name, case-insensitively; null when unknown.
const Op *FindOp(const std::string &name);
std::string KebabCase(const std::string &exportName);

// The scan-layer record the options of clean, deskew, binarize and detect
// fill (steps from the --no-*/--orient/--whiten/--binarize flags for clean).
QuarvelScanOptions ScanOptionsOf(const Op &op, const Values &values);
// An analysis as a measure: a readable line and the JSON object detect prints.
Measure DescribeReport(const QuarvelPageReport &report);

// A usage error: bad option, missing or malformed value.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses "--name value" pairs (a bool may stand alone) against an op's
// arguments, filling defaults; files given by --name are read. Returns the
// remaining positional words.
std::vector<std::string> ParseArgs(const Op &op, const std::vector<std::string> &words, Values *values);

}  // namespace qtool
