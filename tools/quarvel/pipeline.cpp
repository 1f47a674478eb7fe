// Pipelines and batches. A batch first opens every input (counting pages
// without decoding them) and computes every output name; an output folder
// that holds an input, two outputs with one name, or an output that would
// replace another input stops the batch before anything is written. Then
// worker threads take whole files in input order and stream their pages:
// read one, apply the steps, hand it to the file's writer, release it.
// Memory is bounded by the number of threads, not the batch; when there
// are fewer files than threads, the spare threads share each file's pages.
// A page refused by a step fails its whole file (nothing of it is written,
// so a book's pages never shift). Each file's messages are buffered and printed in
// input order, so -j 2 prints what -j 1 prints.
#include "pipeline.h"

#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "files.h"
#include "formats.h"

namespace qtool {

std::vector<std::string> SplitWords(const std::string &text) {
    std::vector<std::string> words;
    std::string cur;
    bool any = false;
    char quote = 0;
    for (char c : text) {
        if (quote) {
            if (c == quote)
                quote = 0;
            else
                cur += c;
        } else if (c == '"' || c == '\'') {
            quote = c, any = true;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            if (any || !cur.empty()) words.push_back(cur), cur.clear(), any = false;
        } else {
            cur += c;
        }
    }
    if (quote) throw UsageError("unbalanced quote in: " + text);
    if (any || !cur.empty()) words.push_back(cur);
    return words;
}

std::vector<Step> ParsePipeline(const std::string &text) {
    std::vector<Step> steps;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t bar = text.find('|', start);
        if (bar == std::string::npos) bar = text.size();
        const std::vector<std::string> words = SplitWords(text.substr(start, bar - start));
        if (words.empty()) throw UsageError("empty step in pipeline: " + text);
        const Op *op = FindOp(words[0]);
        if (op == nullptr) throw UsageError("unknown operation '" + words[0] + "' (see: quarvel list)");
        Step step{op, {}};
        const std::vector<std::string> rest =
            ParseArgs(*op, std::vector<std::string>(words.begin() + 1, words.end()), &step.values);
        if (!rest.empty()) throw UsageError(op->name + ": unexpected '" + rest[0] + "' in pipeline");
        steps.push_back(std::move(step));
        start = bar + 1;
    }
    return steps;
}

Page ApplySteps(const std::vector<Step> &steps, Page page, std::vector<std::pair<std::string, Measure>> *measures) {
    for (const Step &s : steps) {
        if (s.op->image) {
            Page next(s.op->apply(page.get(), s.values));
            if (!next) throw OperationError(s.op->name + " refused the page");
            page = std::move(next);
        } else if (measures != nullptr) {
            measures->emplace_back(s.op->name, s.op->measure(page.get(), s.values));
        }
    }
    return page;
}

std::string OutputPath(const std::string &dir, const std::string &input, const std::string &format) {
    std::filesystem::path in(input);
    std::string ext = format.empty() ? in.extension().string() : "." + format;
    // Without a chosen format, JPEG inputs come out as PNG: cleaned pages
    // are not recompressed with loss, and 1-bit results have no JPEG form.
    if (FormatOfPath("x" + ext) == Format::kUnknown || (format.empty() && FormatOfPath("x" + ext) == Format::kJpeg))
        ext = ".png";
    return (std::filesystem::path(dir) / (in.stem().string() + ext)).string();
}

namespace {

std::string Canonical(const std::string &path) {
    std::error_code ec;
    std::filesystem::path p = std::filesystem::weakly_canonical(std::filesystem::absolute(path), ec);
    return ec ? std::filesystem::absolute(path).lexically_normal().string() : p.string();
}

std::string Clock(double seconds) {
    const int s = static_cast<int>(seconds + 0.5);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d:%02d", s / 60, s % 60);
    return buf;
}

struct Input {
    std::string path;
    std::size_t pages = 0;
    std::string error;   // why it cannot be read
    std::string target;  // the output, before its pages are numbered
    std::vector<std::string> outputs;
};

enum class Outcome { kPending, kWritten, kSkipped, kFailed };

struct FileResult {
    Outcome outcome = Outcome::kPending;
    std::size_t pages = 0;
    std::string out, err;  // buffered stdout and stderr text
};

std::string Where(const Input &in, std::size_t page) {
    return in.pages > 1 ? in.path + "[" + std::to_string(page + 1) + "]" : in.path;
}

// Streams one file: pages are read in order, `window` at a time, processed
// in parallel on `window` threads, then written in order.
void ProcessFile(const std::vector<Step> &steps, const Input &in, const RunOptions &options, std::size_t window,
                 FileResult *r) {
    if (!in.error.empty()) {
        r->err += "quarvel: " + in.error + " (skipped)\n";
        r->outcome = Outcome::kSkipped;
        return;
    }
    std::size_t page = 0;
    try {
        ImageReader reader(in.path);
        if (reader.pages() != in.pages) throw FormatError(in.path + ": the file changed during the batch");
        ImageWriter writer(in.target, in.pages);
        while (page < in.pages) {
            const std::size_t n = std::min(window, in.pages - page);
            std::vector<Page> pages(n);
            std::vector<std::vector<std::pair<std::string, Measure>>> measures(n);
            std::vector<std::string> refused(n);
            for (std::size_t k = 0; k < n; ++k) pages[k] = reader.next();
            auto work = [&](std::size_t k) {
                try {
                    pages[k] = ApplySteps(steps, std::move(pages[k]), &measures[k]);
                } catch (const std::exception &e) {  // nothing may escape a thread
                    refused[k] = e.what();
                }
            };
            std::vector<std::thread> helpers;
            for (std::size_t k = 1; k < n; ++k) helpers.emplace_back(work, k);
            work(0);
            for (std::thread &t : helpers) t.join();
            for (std::size_t k = 0; k < n; ++k, ++page) {
                for (const auto &[name, m] : measures[k])
                    r->out += (options.json ? JsonLine(in.path, page + 1, name, m)
                                            : Where(in, page) + ": " + name + " " + m.text) +
                              "\n";
                if (!refused[k].empty()) throw OperationError(refused[k]);
                writer.add(pages[k]);
                pages[k].reset();
                ++r->pages;
            }
        }
        writer.commit();
        r->outcome = Outcome::kWritten;
    } catch (const OperationError &e) {
        r->err += "quarvel: " + Where(in, page) + ": " + e.what() + "; " + in.path + " not written\n";
        r->outcome = Outcome::kFailed;
    } catch (const std::exception &e) {
        r->err += std::string("quarvel: ") + e.what() + "; " + in.path + " not written\n";
        r->outcome = Outcome::kFailed;
    }
}

}  // namespace

int RunBatch(const std::vector<Step> &steps, const std::vector<std::string> &files, const RunOptions &options) {
    const auto started = std::chrono::steady_clock::now();
    std::vector<Input> inputs(files.size());
    std::map<std::string, std::size_t> inputAt;
    std::size_t totalPages = 0, readable = 0;
    for (std::size_t f = 0; f < files.size(); ++f) {
        Input &in = inputs[f];
        in.path = files[f];
        try {
            in.pages = ImageReader(in.path).pages();
            in.target = OutputPath(options.outDir, in.path, options.format);
            in.outputs = OutputNames(in.target, in.pages);
            totalPages += in.pages;
            ++readable;
        } catch (const FormatError &e) {
            in.error = e.what();
        }
        inputAt.emplace(Canonical(in.path), f);
    }
    // Refuse, before writing anything, outputs that would replace inputs or each other.
    const std::string outDir = Canonical(options.outDir);
    std::map<std::string, std::size_t> owner;
    std::vector<std::string> clashes;
    for (std::size_t f = 0; f < inputs.size(); ++f) {
        const Input &in = inputs[f];
        if (!in.error.empty()) continue;
        const std::string folder = std::filesystem::path(in.path).parent_path().string();
        if (!options.inPlace && Canonical(folder.empty() ? "." : folder) == outDir) {
            std::fprintf(stderr,
                         "quarvel: run: the output folder %s holds the input %s; its outputs would replace inputs "
                         "(choose another folder, or add --in-place to allow it)\n",
                         options.outDir.c_str(), in.path.c_str());
            return kUsage;
        }
        for (const std::string &out : in.outputs) {
            const std::string key = Canonical(out);
            auto other = owner.emplace(key, f);
            if (!other.second)
                clashes.push_back(inputs[other.first->second].path + " and " + in.path + " would both be written to " +
                                  out);
            auto hit = inputAt.find(key);
            if (hit != inputAt.end() && hit->second != f)
                clashes.push_back(in.path + " would be written over the input " + inputs[hit->second].path);
        }
    }
    if (!clashes.empty()) {
        for (const std::string &c : clashes) std::fprintf(stderr, "quarvel: run: %s\n", c.c_str());
        std::fprintf(stderr, "quarvel: run: nothing written; rename the inputs or write them in separate runs\n");
        return kUsage;
    }
    std::error_code ec;
    std::filesystem::create_directories(options.outDir, ec);
    if (ec) {
        std::fprintf(stderr, "quarvel: %s: cannot create output folder (%s)\n", options.outDir.c_str(),
                     ec.message().c_str());
        return kOutput;
    }

    BatchProgress &progress = Progress();
    progress.files = static_cast<long>(inputs.size());
    std::vector<FileResult> results(inputs.size());
    std::mutex printing;
    std::size_t printed = 0, pagesDone = 0;
    const bool bar = options.progress && isatty(fileno(stderr));
    // Prints every finished file whose predecessors are printed, then the bar.
    auto finished = [&](std::size_t f) {
        std::lock_guard<std::mutex> lock(printing);
        pagesDone += results[f].pages;
        ++progress.filesDone;
        if (results[f].outcome == Outcome::kWritten) ++progress.written;
        for (; printed < results.size() && results[printed].outcome != Outcome::kPending; ++printed) {
            if (bar) std::fprintf(stderr, "\r\033[K");
            std::fputs(results[printed].out.c_str(), stdout);
            std::fflush(stdout);
            std::fputs(results[printed].err.c_str(), stderr);
            results[printed].out.clear(), results[printed].err.clear();
        }
        if (bar) {
            const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            const double rate = pagesDone / std::max(secs, 1e-6);
            const int width = 30, filled = totalPages ? static_cast<int>(width * pagesDone / totalPages) : width;
            std::fprintf(stderr, "\r[%s%s] %zu/%zu pages  %.1f pages/s  %s left ", std::string(filled, '=').c_str(),
                         std::string(width - filled, ' ').c_str(), pagesDone, totalPages, rate,
                         Clock((totalPages - pagesDone) / std::max(rate, 1e-6)).c_str());
        }
    };
    // Threads go to files; when there are fewer files than threads, the
    // rest work on the pages of each file (a single multi-page TIFF).
    const int outer = std::max(1, std::min<int>(options.jobs, static_cast<int>(inputs.size())));
    const std::size_t window = static_cast<std::size_t>(std::max(1, options.jobs / outer));
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t f; (f = next.fetch_add(1)) < inputs.size();) {
            FileResult r;
            ProcessFile(steps, inputs[f], options, window, &r);
            {
                std::lock_guard<std::mutex> lock(printing);
                results[f] = std::move(r);
            }
            finished(f);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < outer; ++t) pool.emplace_back(worker);
    worker();
    for (std::thread &t : pool) t.join();
    if (bar) std::fprintf(stderr, "\r\033[K");

    int written = 0, skipped = 0, failed = 0;
    for (const FileResult &r : results) {
        written += r.outcome == Outcome::kWritten;
        skipped += r.outcome == Outcome::kSkipped;
        failed += r.outcome == Outcome::kFailed;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(
        stderr, "quarvel: %zu pages from %zu files in %.1f s (%.1f pages/s); %d files written, %d skipped, %d failed\n",
        pagesDone, files.size(), secs, pagesDone / std::max(secs, 1e-6), written, skipped, failed);
    if (readable == 0) return kInput;
    return skipped > 0 || failed > 0 ? kPartly : kDone;
}

}  // namespace qtool
