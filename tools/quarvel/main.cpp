// quarvel: every Quarvel operation on image files.
//
//   quarvel list | help [OP|run] | --version | demo [DIR]
//   quarvel OP [--arg v ...] IN OUT      an image operation on every page of IN
//   quarvel OP [--arg v ...] IN...       a measurement, one line per page
//   quarvel run "OP ... | OP ..." -o DIR [-j N] [--format EXT] [--json] FILES...
//
// Files are streamed page by page; an output is written whole or not at
// all. Global options (anywhere on the line): --max-megapixels N.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "demo.h"
#include "files.h"
#include "formats.h"
#include "ops.h"
#include "pipeline.h"

using namespace qtool;

namespace {

#ifndef QUARVEL_VERSION
#define QUARVEL_VERSION "0.0.0"
#endif

const char *TypeName(const Arg &a) {
    if (a.choices != nullptr) return a.choices;
    switch (a.type) {
        case ArgType::kInt:
            return "int";
        case ArgType::kDouble:
            return "number";
        case ArgType::kBool:
            return "0|1";
        case ArgType::kRect:
            return "l,t,r,b";
        case ArgType::kWord:
            return "word";
        default:
            return "file";
    }
}

const char kExitCodes[] =
    "exit codes:\n"
    "  0  done\n"
    "  1  run: some files were skipped (unreadable) or failed; the others were written\n"
    "  2  usage error (bad command, option or value; run: output folder or names refused, nothing written)\n"
    "  3  input error: a file is unreadable, corrupt, truncated, too large or of an unsupported format\n"
    "  4  an operation refused a page (nothing written)\n"
    "  5  the output could not be written\n"
    "  130, 143  interrupted (Ctrl-C, SIGTERM); finished outputs stay, no temporary file is left\n";

void PrintUsage(FILE *to) {
    std::fprintf(
        to,
        "usage: quarvel OP [--option value ...] [--in-place] INPUT [OUTPUT]   one operation on every page\n"
        "       quarvel OP [--option value ...] [--json] INPUT...             a measurement, one line per page\n"
        "       quarvel run \"OP [--option value] | OP ...\" -o DIR [options] FILES...\n"
        "       quarvel list | help [OP|run] | demo [DIR] | --version\n"
        "\n"
        "Operations take export names (RemoveBorder1), kebab-case (remove-border1) or plain\n"
        "names (deskew-crop-frame); see quarvel list. Real-scan commands: detect, clean, deskew,\n"
        "binarize. Formats by content on reading, by extension on writing: .bmp .png .tif .jpg\n"
        ".pbm .pgm .ppm.\n"
        "\n"
        "options:\n"
        "  --in-place           an image operation may overwrite its INPUT (give INPUT only);\n"
        "                       run may write into its inputs' folder\n"
        "  --json               measurements as JSON lines\n"
        "  --max-megapixels N   refuse pages over N million pixels before reading them (default %lld)\n"
        "  -h, --help           this text; quarvel OP --help for one operation\n"
        "  --version            the version\n"
        "\n%s",
        kDefaultPixelLimit / 1000000, kExitCodes);
}

void PrintRunHelp() {
    std::printf(
        "usage: quarvel run \"OP [--option value] | OP ...\" -o DIR [options] FILES...\n"
        "\n"
        "Applies the steps to every page of every file and writes DIR/NAME: a multi-page TIFF stays\n"
        "one file; several pages into a one-page format become NAME-1.EXT, NAME-2.EXT, ...\n"
        "Measurement steps print one line per page and pass the page on.\n"
        "\n"
        "options:\n"
        "  -o, --out DIR       output folder (created when missing); it may not hold any input\n"
        "                      unless --in-place is given\n"
        "  -j, --jobs N        files worked on at once, 1 to 256 (default 1); output is the same\n"
        "  --format EXT        output format (png, .png, PNG, tif, jpg, bmp, pgm ...); default: the\n"
        "                      input's, JPEG inputs as PNG\n"
        "  --json              measurements as JSON lines\n"
        "  --in-place          allow DIR to be an input's folder: outputs replace inputs of the same name\n"
        "  --no-progress       no progress bar (it is drawn only when stderr is a terminal)\n"
        "  --max-megapixels N  page size limit (default %lld)\n"
        "\n"
        "Safety: every input is opened and every output name computed before anything is written;\n"
        "two outputs with one name, or an output replacing an input, stop the batch (exit 2).\n"
        "Files are streamed one page at a time, each output through a temporary file renamed into\n"
        "place when complete. A page refused by a step fails its whole file (reported, not written),\n"
        "so no page of a book is dropped. A directory or unreadable file is reported and skipped.\n"
        "\n%s",
        kDefaultPixelLimit / 1000000, kExitCodes);
}

int List(bool namesOnly) {
    for (const Op &op : Operations()) {
        if (namesOnly) {
            std::printf("%s\n", op.name.c_str());
            for (const std::string &a : op.aliases) std::printf("%s\n", a.c_str());
            continue;
        }
        std::string names = op.name;
        for (const std::string &a : op.aliases) names += ", " + a;
        std::printf("%-40s %s %s\n", names.c_str(), op.image ? "page   " : "measure", op.summary);
        for (const Arg &a : op.args) {
            std::string def;
            if (a.fallback == nullptr)
                def = " (required)";
            else if (*a.fallback != '\0')
                def = std::string(" = ") + a.fallback;
            std::printf("%42s--%s %s%s\n", "", a.name, TypeName(a), def.c_str());
        }
    }
    return 0;
}

int Help(const std::string &name) {
    if (name == "run") {
        PrintRunHelp();
        return 0;
    }
    const Op *op = FindOp(name);
    if (op == nullptr) {
        std::fprintf(stderr, "quarvel: unknown operation '%s' (see: quarvel list)\n", name.c_str());
        return kUsage;
    }
    std::printf("%s (%s", op->name.c_str(), op->exportName);
    for (const std::string &a : op->aliases) std::printf(", %s", a.c_str());
    std::printf("): %s\n", op->summary);
    std::printf(op->image ? "usage: quarvel %s [options] [--in-place] INPUT OUTPUT\n"
                          : "usage: quarvel %s [options] [--json] INPUT...\n",
                op->name.c_str());
    for (const Arg &a : op->args) {
        std::string def = a.fallback == nullptr     ? "required"
                          : std::strlen(a.fallback) ? std::string("default ") + a.fallback
                                                    : "optional";
        std::printf("  --%-16s %-10s %s (%s)\n", a.name, TypeName(a), a.help, def.c_str());
    }
    if (op->notes != nullptr) std::printf("\n%s\n", op->notes);
    return 0;
}

std::string Where(const std::string &file, std::size_t page, std::size_t pages) {
    return pages > 1 ? file + "[" + std::to_string(page + 1) + "]" : file;
}

int Measurements(const Op &op, const Values &values, const std::vector<std::string> &files, bool json) {
    int status = 0;
    for (const std::string &file : files) {
        try {
            ImageReader reader(file);
            for (std::size_t i = 0; i < reader.pages(); ++i) {
                Page page = reader.next();
                const Measure m = op.measure(page.get(), values);
                if (!m.ok) {
                    std::fprintf(stderr, "quarvel: %s: %s\n", Where(file, i, reader.pages()).c_str(), m.text.c_str());
                    status = kOperation;
                } else if (json) {
                    std::printf("%s\n", JsonLine(file, i + 1, op.name, m).c_str());
                } else if (reader.pages() > 1 || files.size() > 1) {
                    std::printf("%s: %s\n", Where(file, i, reader.pages()).c_str(), m.text.c_str());
                } else {
                    std::printf("%s\n", m.text.c_str());
                }
            }
        } catch (const FormatError &e) {
            std::fprintf(stderr, "quarvel: %s\n", e.what());
            status = kInput;
        }
    }
    return status;
}

int ImageOperation(const Op &op, const Values &values, const std::vector<std::string> &rest, bool inPlace) {
    if (rest.size() != (inPlace ? 1u : 2u)) {
        std::fprintf(stderr, "quarvel: %s takes INPUT OUTPUT%s\n", op.name.c_str(),
                     inPlace ? " (or INPUT with --in-place)" : "");
        return kUsage;
    }
    const std::string &input = rest[0];
    const std::string output = inPlace ? input : rest[1];
    if (FormatOfPath(output) == Format::kUnknown) {
        std::fprintf(stderr, "quarvel: %s: unknown output format (use .bmp .png .tif .jpg .pbm .pgm .ppm)\n",
                     output.c_str());
        return kUsage;
    }
    try {
        ImageReader reader(input);
        const std::size_t pages = reader.pages();
        if (!inPlace) {
            for (const std::string &name : OutputNames(output, pages)) {
                std::error_code ec;
                if (std::filesystem::equivalent(input, name, ec)) {
                    std::fprintf(stderr, "quarvel: %s: output would overwrite the input (use --in-place)\n",
                                 name.c_str());
                    return kUsage;
                }
            }
        }
        std::unique_ptr<ImageWriter> writer;
        try {
            writer = std::make_unique<ImageWriter>(output, pages);
        } catch (const FormatError &e) {
            std::fprintf(stderr, "quarvel: %s\n", e.what());
            return kOutput;
        }
        for (std::size_t i = 0; i < pages; ++i) {
            Page in = reader.next();
            Page out(op.apply(in.get(), values));
            if (!out) {
                std::fprintf(stderr,
                             "quarvel: %s: %s refused the page (unsupported depth or arguments); nothing written\n",
                             Where(input, i, pages).c_str(), op.name.c_str());
                return kOperation;
            }
            in.reset();
            try {
                writer->add(out);
            } catch (const FormatError &e) {
                std::fprintf(stderr, "quarvel: %s\n", e.what());
                return kOutput;
            }
        }
        try {
            writer->commit();
        } catch (const FormatError &e) {
            std::fprintf(stderr, "quarvel: %s\n", e.what());
            return kOutput;
        }
    } catch (const FormatError &e) {
        std::fprintf(stderr, "quarvel: %s\n", e.what());
        return kInput;
    }
    return kDone;
}

// A whole number in [lo, hi], or a usage error naming the option and range.
long long WholeNumber(const std::string &option, const std::string &text, long long lo, long long hi) {
    std::size_t used = 0;
    long long v = 0;
    try {
        v = std::stoll(text, &used);
    } catch (const std::exception &) {
        used = 0;
    }
    if (used == 0 || used != text.size() || v < lo || v > hi)
        throw UsageError(option + ": expected a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
                         ", got '" + text + "'");
    return v;
}

int Run(const std::vector<std::string> &args, bool inPlace) {
    if (args.empty()) {
        PrintRunHelp();
        return kUsage;
    }
    if (args[0] == "-h" || args[0] == "--help") {
        PrintRunHelp();
        return 0;
    }
    const std::vector<Step> steps = ParsePipeline(args[0]);
    RunOptions options;
    options.inPlace = inPlace;
    std::vector<std::string> files;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size()) throw UsageError("run: " + a + " needs a value");
            return args[++i];
        };
        if (a == "-o" || a == "--out") {
            options.outDir = value();
        } else if (a == "-j" || a == "--jobs") {
            options.jobs = static_cast<int>(WholeNumber("run: " + a, value(), 1, 256));
        } else if (a == "--format") {
            std::string f = value();
            if (!f.empty() && f[0] == '.') f.erase(0, 1);
            for (char &c : f) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (FormatOfPath("x." + f) == Format::kUnknown)
                throw UsageError("run: --format: expected bmp, png, tif, tiff, jpg, jpeg, pbm, pgm, ppm or pnm, got '" +
                                 args[i] + "'");
            options.format = f;
        } else if (a == "--json") {
            options.json = true;
        } else if (a == "--no-progress") {
            options.progress = false;
        } else if (a == "--") {
            files.insert(files.end(), args.begin() + static_cast<long>(i) + 1, args.end());
            break;
        } else if (a.rfind("-", 0) == 0 && a.size() > 1) {
            throw UsageError("run: unknown option " + a + " (see: quarvel help run)");
        } else {
            files.push_back(a);
        }
    }
    if (options.outDir.empty()) throw UsageError("run: -o DIR is required");
    if (files.empty()) throw UsageError("run: no input files");
    return RunBatch(steps, files, options);
}

int Main(std::vector<std::string> args) {
    // Options that apply to every command, wherever they stand.
    bool inPlace = false;
    for (std::size_t i = 0; i < args.size();) {
        if (args[i] == "--max-megapixels") {
            if (i + 1 >= args.size()) throw UsageError("--max-megapixels needs a value");
            SetPixelLimit(WholeNumber("--max-megapixels", args[i + 1], 1, 1000000) * 1000000);
            args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
        } else if (args[i] == "--in-place") {
            inPlace = true;
            args.erase(args.begin() + static_cast<long>(i));
        } else {
            ++i;
        }
    }
    if (args.empty()) {
        PrintUsage(stderr);
        return kUsage;
    }
    const std::string cmd = args[0];
    if (cmd == "-h" || cmd == "--help") {
        PrintUsage(stdout);
        return 0;
    }
    if (cmd == "--version" || cmd == "version") {
        std::printf("quarvel %s (scan interface %d)\n", QUARVEL_VERSION, QuarvelScanVersion());
        return 0;
    }
    if (cmd == "list") return List(args.size() > 1 && args[1] == "--names");
    if (cmd == "help") {
        if (args.size() == 1) {
            PrintUsage(stdout);
            return 0;
        }
        if (args.size() != 2) throw UsageError("help takes one name: quarvel help OP");
        return Help(args[1]);
    }
    if (cmd == "demo") {
        DemoReport report;
        return RunDemo(args.size() > 1 ? args[1] : "demo-out", &report);
    }
    if (cmd == "run") return Run(std::vector<std::string>(args.begin() + 1, args.end()), inPlace);
    const Op *op = FindOp(cmd);
    if (op == nullptr) throw UsageError("unknown command or operation '" + cmd + "' (see: quarvel list)");
    bool json = false;
    std::vector<std::string> words;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") return Help(op->name);
        if (args[i] == "--json")
            json = true;
        else
            words.push_back(args[i]);
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
}

}  // namespace

int main(int argc, char **argv) {
    HandleInterrupts();
    try {
        return Main(std::vector<std::string>(argv + 1, argv + argc));
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
