// quarvel: every Quarvel operation on image files.
//
//   quarvel list                         the operations and their arguments
//   quarvel help OP                      one operation
//   quarvel OP [--arg v ...] IN OUT      an image operation on every page of IN
//   quarvel OP [--arg v ...] IN...       a measurement, one line per page
//   quarvel run "OP ... | OP ..." -o DIR [-j N] [--format EXT] [--json] FILES...
//   quarvel demo [DIR]
//
// Exit codes: 0 done, 1 some pages of a batch failed, 2 usage error, 3 input
// error (unreadable or unsupported file), 4 the operation refused a page,
// 5 the output could not be written.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "demo.h"
#include "formats.h"
#include "ops.h"
#include "pipeline.h"

using namespace qtool;

namespace {

constexpr int kUsage = 2, kInput = 3, kOperation = 4, kOutput = 5;

const char *TypeName(ArgType t) {
    switch (t) {
        case ArgType::kInt: return "int";
        case ArgType::kDouble: return "number";
        case ArgType::kBool: return "0|1";
        case ArgType::kRect: return "l,t,r,b";
        default: return "file";
    }
}

void PrintUsage(FILE *to) {
    std::fprintf(to,
                 "usage: quarvel list | help OP | demo [DIR]\n"
                 "       quarvel OP [--arg value ...] INPUT OUTPUT      (image operations)\n"
                 "       quarvel OP [--arg value ...] [--json] INPUT... (measurements)\n"
                 "       quarvel run \"OP [--arg value] | OP ...\" -o DIR [-j N] [--format EXT] [--json] FILES...\n");
}

int List() {
    for (const Op &op : Operations()) {
        std::printf("%-30s %s %s\n", op.name.c_str(), op.image ? "page   " : "measure", op.summary);
        for (const Arg &a : op.args) {
            std::string def;
            if (a.fallback == nullptr) {
                def = " (required)";
            } else if (*a.fallback != '\0') {
                def = " = ";
                def += a.fallback;
            }
            std::printf("%32s--%s %s%s\n", "", a.name, TypeName(a.type), def.c_str());
        }
    }
    return 0;
}

int Help(const std::string &name) {
    const Op *op = FindOp(name);
    if (op == nullptr) {
        std::fprintf(stderr, "quarvel: unknown operation '%s' (see: quarvel list)\n", name.c_str());
        return kUsage;
    }
    std::printf("%s (%s): %s\n", op->name.c_str(), op->exportName, op->summary);
    std::printf(op->image ? "usage: quarvel %s [options] INPUT OUTPUT\n" : "usage: quarvel %s [options] [--json] INPUT...\n",
                op->name.c_str());
    for (const Arg &a : op->args) {
        std::string def = a.fallback == nullptr ? "required" : std::strlen(a.fallback) ? std::string("default ") + a.fallback : "optional";
        std::printf("  --%-16s %-8s %s (%s)\n", a.name, TypeName(a.type), a.help, def.c_str());
    }
    return 0;
}

int Measurements(const Op &op, const Values &values, const std::vector<std::string> &files, bool json) {
    int status = 0;
    for (const std::string &file : files) {
        std::vector<Page> pages;
        try {
            pages = ReadImage(file);
        } catch (const FormatError &e) {
            std::fprintf(stderr, "quarvel: %s\n", e.what());
            status = kInput;
            continue;
        }
        for (std::size_t i = 0; i < pages.size(); ++i) {
            const Measure m = op.measure(pages[i].get(), values);
            if (json)
                std::printf("{\"file\": \"%s\", \"page\": %zu, \"operation\": \"%s\", \"value\": %s}\n", file.c_str(), i + 1,
                            op.name.c_str(), m.json.c_str());
            else if (pages.size() > 1 || files.size() > 1)
                std::printf("%s[%zu]: %s\n", file.c_str(), i + 1, m.text.c_str());
            else
                std::printf("%s\n", m.text.c_str());
        }
    }
    return status;
}

int ImageOperation(const Op &op, const Values &values, const std::vector<std::string> &rest, bool inPlace) {
    if (rest.size() != (inPlace ? 1u : 2u)) {
        std::fprintf(stderr, "quarvel: %s takes INPUT OUTPUT%s\n", op.name.c_str(), inPlace ? " (or INPUT with --in-place)" : "");
        return kUsage;
    }
    const std::string &input = rest[0];
    const std::string output = inPlace ? input : rest[1];
    if (!inPlace) {
        std::error_code ec;
        if (std::filesystem::equivalent(input, output, ec)) {
            std::fprintf(stderr, "quarvel: %s: output would overwrite the input (use --in-place)\n", output.c_str());
            return kUsage;
        }
    }
    if (FormatOfPath(output) == Format::kUnknown) {
        std::fprintf(stderr, "quarvel: %s: unknown output format (use .bmp .png .tif .jpg .pbm .pgm .ppm)\n", output.c_str());
        return kUsage;
    }
    std::vector<Page> pages;
    try {
        pages = ReadImage(input);
    } catch (const FormatError &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kInput;
    }
    std::vector<Page> results;
    for (std::size_t i = 0; i < pages.size(); ++i) {
        Page out(op.apply(pages[i].get(), values));
        if (!out) {
            std::string where = input;
            if (pages.size() > 1) {
                where += '[';
                where += std::to_string(i + 1);
                where += ']';
            }
            std::fprintf(stderr, "quarvel: %s: %s refused the page (unsupported depth or arguments)\n", where.c_str(),
                         op.name.c_str());
            return kOperation;
        }
        results.push_back(std::move(out));
    }
    std::vector<const Page *> ptrs;
    for (const Page &p : results) ptrs.push_back(&p);
    try {
        if (ptrs.size() > 1 && !MultiPage(FormatOfPath(output))) {
            std::filesystem::path p(output);
            for (std::size_t i = 0; i < ptrs.size(); ++i)
                WriteImage((p.parent_path() / (p.stem().string() + "-" + std::to_string(i + 1) + p.extension().string())).string(),
                           {ptrs[i]});
        } else {
            WriteImage(output, ptrs);
        }
    } catch (const FormatError &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kOutput;
    }
    return 0;
}

int Run(const std::vector<std::string> &args) {
    if (args.empty()) {
        PrintUsage(stderr);
        return kUsage;
    }
    const std::vector<Step> steps = ParsePipeline(args[0]);
    RunOptions options;
    std::vector<std::string> files;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size()) throw UsageError(a + " needs a value");
            return args[++i];
        };
        if (a == "-o" || a == "--out") options.outDir = value();
        else if (a == "-j" || a == "--jobs") {
            const std::string v = value();
            options.jobs = std::atoi(v.c_str());
            if (options.jobs < 1 || options.jobs > 256) throw UsageError("-j: expected 1 to 256, got '" + v + "'");
        } else if (a == "--format") options.format = value();
        else if (a == "--json") options.json = true;
        else if (a == "--no-progress") options.progress = false;
        else if (a.rfind("-", 0) == 0 && a.size() > 1) throw UsageError("run: unknown option " + a);
        else files.push_back(a);
    }
    if (options.outDir.empty()) throw UsageError("run: -o DIR is required");
    if (files.empty()) throw UsageError("run: no input files");
    if (!options.format.empty() && FormatOfPath("x." + options.format) == Format::kUnknown)
        throw UsageError("run: unknown format '" + options.format + "'");
    return RunBatch(steps, files, options);
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "-h" || args[0] == "--help") {
        PrintUsage(args.empty() ? stderr : stdout);
        return args.empty() ? kUsage : 0;
    }
    try {
        const std::string cmd = args[0];
        if (cmd == "list") return List();
        if (cmd == "help") {
            if (args.size() != 2) {
                PrintUsage(stderr);
                return kUsage;
            }
            return Help(args[1]);
        }
        if (cmd == "demo") {
            DemoReport report;
            return RunDemo(args.size() > 1 ? args[1] : "demo-out", &report);
        }
        if (cmd == "run") return Run(std::vector<std::string>(args.begin() + 1, args.end()));
        const Op *op = FindOp(cmd);
        if (op == nullptr) {
            std::fprintf(stderr, "quarvel: unknown command or operation '%s' (see: quarvel list)\n", cmd.c_str());
            return kUsage;
        }
        bool json = false, inPlace = false;
        std::vector<std::string> words;
        for (std::size_t i = 1; i < args.size(); ++i) {
            if (args[i] == "--json") json = true;
            else if (args[i] == "--in-place") inPlace = true;
            else words.push_back(args[i]);
        }
        Values values;
        std::vector<std::string> rest;
        try {
            rest = ParseArgs(*op, words, &values);
        } catch (const FormatError &e) {
            std::fprintf(stderr, "quarvel: %s\n", e.what());
            return kInput;
        }
        if (op->image) return ImageOperation(*op, values, rest, inPlace);
        if (rest.empty()) throw UsageError(op->name + ": no input files");
        return Measurements(*op, values, rest, json);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kUsage;
    } catch (const FormatError &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kInput;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kOperation;
    }
}
